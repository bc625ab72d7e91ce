// MD5 throughput through the range form, the form that hashes any length.
//
//   md5_bench [--input=FILE] [benchmark flags]
//
// Hashes 64 MiB per iteration: FILE's bytes when given (so the figure can be
// set beside md5sum on the same file), else a fixed byte pattern. The
// "MB" counter is a rate: decimal megabytes per second. The digest of the input
// goes to standard error as "md5 <hex>" for comparison with md5sum.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "MD5Hash.h"

namespace {

constexpr size_t kInputBytes = 64u << 20;

std::vector<uint8_t>& Input() {
  static std::vector<uint8_t> sInput;
  return sInput;
}

std::string HexDigest(const std::vector<uint8_t>& inBytes) {
  MD5Digest context;
  context.update(inBytes.begin(), inBytes.end());
  std::vector<uint8_t> raw;
  std::string hex;
  context.finish(std::back_inserter(raw), hex);
  return hex;
}

void BM_MD5RangeForm(benchmark::State& state) {
  const std::vector<uint8_t>& input = Input();
  for (auto _ : state) {
    MD5Digest context;
    context.update(input.begin(), input.end());
    context.final();
    benchmark::DoNotOptimize(context.digest);
  }
  const double bytes = static_cast<double>(input.size()) * static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["MB"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MD5RangeForm)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Loads FILE's first 64 MiB; false when it cannot be read or is shorter.
bool LoadInput(const char* inPath) {
  std::ifstream file(inPath, std::ios::binary);
  Input().resize(kInputBytes);
  file.read(reinterpret_cast<char*>(Input().data()), kInputBytes);
  return static_cast<size_t>(file.gcount()) == kInputBytes;
}

void MakePatternInput() {
  Input().resize(kInputBytes);
  for (size_t i = 0; i < kInputBytes; ++i) Input()[i] = static_cast<uint8_t>(i * 7 + 3);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const char* inputPath = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--input=", 8) == 0) {
      inputPath = argv[i] + 8;
    } else {
      std::fprintf(stderr, "md5_bench: unexpected argument \"%s\"\n", argv[i]);
      return 2;
    }
  }
  if (inputPath != nullptr) {
    if (!LoadInput(inputPath)) {
      std::fprintf(stderr, "md5_bench: cannot read 64 MiB from %s\n", inputPath);
      return 2;
    }
  } else {
    MakePatternInput();
  }
  std::cerr << "md5 " << HexDigest(Input()) << std::endl;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
