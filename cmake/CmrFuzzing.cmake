# Fuzzing support, for a build tree of its own (scripts/fuzz.sh): with clang and its libFuzzer
# runtime, every target of this project is compiled with the fuzzer's coverage hooks and the
# address and undefined-behaviour checks, and CMR_FUZZING is set so that tests/fuzz adds its
# fuzz targets. With any other compiler, or without the runtime, the build goes on without
# them and says so.
include(CheckCXXSourceCompiles)

set(CMR_FUZZING OFF)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(CMAKE_REQUIRED_FLAGS -fsanitize=fuzzer,address,undefined)
  set(CMAKE_REQUIRED_LINK_OPTIONS -fsanitize=fuzzer,address,undefined)
  check_cxx_source_compiles([[
    #include <cstddef>
    #include <cstdint>
    extern "C" int LLVMFuzzerTestOneInput(uint8_t const*, size_t) { return 0; }
  ]] CMR_HAVE_LIBFUZZER)
  unset(CMAKE_REQUIRED_FLAGS)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  set(CMR_FUZZING ${CMR_HAVE_LIBFUZZER})
endif()

if(CMR_FUZZING)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
else()
  message(WARNING "CMR_BUILD_FUZZ: the fuzz targets need clang with libFuzzer "
    "(CMAKE_CXX_COMPILER=clang++, package libclang-rt-dev); not building them")
endif()
