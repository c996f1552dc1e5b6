#include <benchmark/benchmark.h>

#include <string>

#include "zelta/common.h"
#include "zelta/crypto.h"

using namespace Quorvel::Kvan;

namespace {

void BM_Aes256EncryptBlock(benchmark::State& state) {
  unsigned char key[32] = {7};
  unsigned char block[16] = {1, 2, 3};
  Crypto::aes256_context ctx;
  Crypto::aes256_init(&ctx, key);
  for (auto _ : state) {
    Crypto::aes256_encrypt_ecb(&ctx, block);
    benchmark::DoNotOptimize(block);
  }
  state.SetBytesProcessed(state.iterations() * 16);
}
BENCHMARK(BM_Aes256EncryptBlock);

void BM_Aes256DecryptBlock(benchmark::State& state) {
  unsigned char key[32] = {7};
  unsigned char block[16] = {1, 2, 3};
  Crypto::aes256_context ctx;
  Crypto::aes256_init(&ctx, key);
  for (auto _ : state) {
    Crypto::aes256_decrypt_ecb(&ctx, block);
    benchmark::DoNotOptimize(block);
  }
  state.SetBytesProcessed(state.iterations() * 16);
}
BENCHMARK(BM_Aes256DecryptBlock);

std::string sampleBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 131 + 17);
  return s;
}

void BM_Base64Encode(benchmark::State& state) {
  const std::string data = sampleBytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(Common::b64encode(data));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode)->Arg(1024);

void BM_Base64Decode(benchmark::State& state) {
  const std::string text = Common::b64encode(sampleBytes(static_cast<size_t>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(Common::b64decode(text));
  // Counted in decoded bytes, comparable with the encoder.
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode)->Arg(1024);

}  // namespace
