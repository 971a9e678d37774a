// SPDX-License-Identifier: MIT
// harness: what the fuzz targets share with one another, and with libFuzzer.
//
// A target feeds the product with what it makes of an input, and compares what comes of it with what an
// oracle of its own expects. The oracles are written from what the system promises, not from its code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// libFuzzer's entries into a target. Input -1 is kept out of the corpus, 0 is not.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

/** Unless `holds`, says what was expected (printf(3)) and ends the process: libFuzzer keeps the input. */
void expect(bool holds, const char* format, ...) __attribute__((format(printf, 2, 3)));

/**
 * Calls into the product and tells how that ended: "return", "abort" or "exit N". The latter two leave the
 * call by longjmp(3); what the product then still held is the caller's to free.
 */
std::string ending_of(const std::function<void()>& call);
