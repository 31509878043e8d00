// Throughput of the security/ primitives, to be read next to `openssl speed` in the same
// run (OPENSSL_ia32cap=0 for OpenSSL's portable code): see security/README.md.
#include <benchmark/benchmark.h>

#include <vector>

#include "security/aes.h"
#include "security/gcm.h"
#include "security/hmac.h"
#include "security/md5.h"
#include "security/sha1.h"
#include "security/sha256.h"
#include "security/sha512.h"

namespace {

std::vector<uint8_t> buffer(size_t n) {
  std::vector<uint8_t> b(n);
  for (size_t i = 0; i < n; i++) b[i] = static_cast<uint8_t>(i * 131 + 7);
  return b;
}

template <class H>
void hash_8k(benchmark::State& state) {
  auto data = buffer(8192);
  uint8_t out[H::digest_size];
  for (auto _ : state) {
    H h;
    h.update(data.data(), data.size());
    h.final(out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 8192);
}

void BM_Md5_8KiB(benchmark::State& s) { hash_8k<Md5>(s); }
void BM_Sha1_8KiB(benchmark::State& s) { hash_8k<Sha1>(s); }
void BM_Sha256_8KiB(benchmark::State& s) { hash_8k<Sha256>(s); }
void BM_Sha512_8KiB(benchmark::State& s) { hash_8k<Sha512>(s); }

void aes_ctr_8k(benchmark::State& state, AesEngine engine, int key_bytes) {
  auto key = buffer(static_cast<size_t>(key_bytes));
  uint8_t iv[16] = {};
  AesCtr ctr;
  if (!ctr.init(key.data(), key.size(), iv, engine)) {
    state.SkipWithError("no AES instructions on this processor");
    return;
  }
  auto data = buffer(8192);
  for (auto _ : state) {
    ctr.update(data.data(), data.data(), data.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 8192);
}

void BM_Aes128Ctr_Portable_8KiB(benchmark::State& s) { aes_ctr_8k(s, AesEngine::portable, 16); }
void BM_Aes128Ctr_Hardware_8KiB(benchmark::State& s) { aes_ctr_8k(s, AesEngine::hardware, 16); }
void BM_Aes256Ctr_Portable_8KiB(benchmark::State& s) { aes_ctr_8k(s, AesEngine::portable, 32); }

void aes_cbc_8k(benchmark::State& state, AesEngine engine, bool decrypt) {
  auto key = buffer(32);
  uint8_t iv[16] = {};
  AesCbc cbc;
  if (!cbc.init(key.data(), key.size(), iv, engine)) {
    state.SkipWithError("no AES instructions on this processor");
    return;
  }
  auto data = buffer(8192);
  for (auto _ : state) {
    bool ok = decrypt ? cbc.decrypt(data.data(), data.data(), data.size())
                      : cbc.encrypt(data.data(), data.data(), data.size());
    benchmark::DoNotOptimize(ok);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 8192);
}

void BM_Aes256CbcEncrypt_Portable_8KiB(benchmark::State& s) {
  aes_cbc_8k(s, AesEngine::portable, false);
}
void BM_Aes256CbcDecrypt_Portable_8KiB(benchmark::State& s) {
  aes_cbc_8k(s, AesEngine::portable, true);
}
void BM_Aes256CbcEncrypt_Hardware_8KiB(benchmark::State& s) {
  aes_cbc_8k(s, AesEngine::hardware, false);
}

void aes_gcm_8k(benchmark::State& state, AesEngine engine) {
  auto key = buffer(16);
  uint8_t iv[12] = {}, tag[16];
  AesGcm gcm;
  if (!gcm.set_key(key.data(), key.size(), engine)) {
    state.SkipWithError("no AES instructions on this processor");
    return;
  }
  auto data = buffer(8192);
  for (auto _ : state) {
    bool ok = gcm.seal(iv, 12, nullptr, 0, data.data(), data.data(), data.size(), tag, 16);
    benchmark::DoNotOptimize(ok);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 8192);
}

void BM_Aes128Gcm_Portable_8KiB(benchmark::State& s) { aes_gcm_8k(s, AesEngine::portable); }
void BM_Aes128Gcm_Hardware_8KiB(benchmark::State& s) { aes_gcm_8k(s, AesEngine::hardware); }

// SRTP's case: HMAC-SHA1 over a 172-byte packet (12-byte header, 160 bytes of G.711 audio)
// with the key state computed once per session.
void BM_HmacSha1_172B_KeyedOnce(benchmark::State& state) {
  auto key = buffer(20);
  auto packet = buffer(172);
  HmacSha1 mac(key.data(), key.size());
  uint8_t out[HmacSha1::digest_size];
  for (auto _ : state) {
    mac.mac(packet.data(), packet.size(), out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 172);
}

}  // namespace

BENCHMARK(BM_Md5_8KiB);
BENCHMARK(BM_Sha1_8KiB);
BENCHMARK(BM_Sha256_8KiB);
BENCHMARK(BM_Sha512_8KiB);
BENCHMARK(BM_Aes128Ctr_Portable_8KiB);
BENCHMARK(BM_Aes128Ctr_Hardware_8KiB);
BENCHMARK(BM_Aes256Ctr_Portable_8KiB);
BENCHMARK(BM_Aes256CbcEncrypt_Portable_8KiB);
BENCHMARK(BM_Aes256CbcDecrypt_Portable_8KiB);
BENCHMARK(BM_Aes256CbcEncrypt_Hardware_8KiB);
BENCHMARK(BM_Aes128Gcm_Portable_8KiB);
BENCHMARK(BM_Aes128Gcm_Hardware_8KiB);
BENCHMARK(BM_HmacSha1_172B_KeyedOnce);

BENCHMARK_MAIN();
