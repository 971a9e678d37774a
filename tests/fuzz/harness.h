// SPDX-License-Identifier: MIT
// harness: what the fuzz targets share with each other and with libFuzzer.
//
// A target turns each input into calls of the product and compares the results with those of its own oracle.
// The oracles are written from what the system promises, not from its code.
#pragma once

#include <cstddef>
#include <cstdint>

// libFuzzer's entry points. A target returns -1 to keep an input out of the corpus, otherwise 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

/** Unless `holds`, prints what was expected (printf(3)) and aborts: libFuzzer then keeps the input. */
void expect(bool holds, const char* format, ...) __attribute__((format(printf, 2, 3)));
