# SPDX-License-Identifier: MIT
# How every part of the daemon is compiled and linked.
add_library(corvane-build INTERFACE)
target_compile_features(corvane-build INTERFACE cxx_std_20)
target_include_directories(corvane-build INTERFACE ${PROJECT_SOURCE_DIR})

# 64-bit offsets and times on 32-bit machines: for a log beyond 2 GiB and a clock beyond 2038.
target_compile_definitions(corvane-build INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

# No exceptions and no run-time types, so that the daemon does not even map the C++ run-time library. The
# crash report needs the unwind tables. Log lines name files from the root of the repository.
target_compile_options(
  corvane-build
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wconversion
            $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
            -fasynchronous-unwind-tables -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

# A release is hardened: position-independent code, read-only relocations, guarded stacks and buffers. Only
# x86 has marks for jump targets, and not every compiler can probe a growing stack.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection CORVANE_HAS_CF_PROTECTION)
check_cxx_compiler_flag(-fstack-clash-protection CORVANE_HAS_STACK_CLASH_PROTECTION)
set(release $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
target_compile_options(
  corvane-build INTERFACE -fPIE $<${release}:-fstack-protector-strong
                          $<$<BOOL:${CORVANE_HAS_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>
                          $<$<BOOL:${CORVANE_HAS_CF_PROTECTION}>:-fcf-protection>
                          -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -ffunction-sections -fdata-sections>)
target_link_options(corvane-build INTERFACE -pie -Wl,-z,relro,-z,now -Wl,--as-needed
                    $<${release}:-Wl,--gc-sections>)
