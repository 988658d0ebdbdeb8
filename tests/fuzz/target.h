// The beginning of every fuzzer, by CMakeLists.txt, after the headers that all of them use.

/// What a fuzzer does with one input; whatever ends the process is a finding.
static void check(FuzzedDataProvider input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) { return check({data, size}), 0; }
