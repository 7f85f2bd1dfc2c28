#include "engine/ondisk/hashes.h"

#include <string.h>

#include <algorithm>

#include "engine/ondisk/le.h"

namespace ZorvEngine {
namespace {

uint64_t RotateLeft(uint64_t value, int bits) { return value << bits | value >> (64 - bits); }
uint64_t RotateRight(uint64_t value, int bits) { return value >> bits | value << (64 - bits); }
uint32_t RotateRight(uint32_t value, int bits) { return value >> bits | value << (32 - bits); }

// --- XXH64 -----------------------------------------------------------------------------------

constexpr uint64_t kPrime1 = 0x9E3779B185EBCA87ULL;
constexpr uint64_t kPrime2 = 0xC2B2AE3D27D4EB4FULL;
constexpr uint64_t kPrime3 = 0x165667B19E3779F9ULL;
constexpr uint64_t kPrime4 = 0x85EBCA77C2B2AE63ULL;
constexpr uint64_t kPrime5 = 0x27D4EB2F165667C5ULL;
constexpr size_t kXxhashStripe = 32;

uint64_t XxhashRound(uint64_t lane, uint64_t word) {
  return RotateLeft(lane + word * kPrime2, 31) * kPrime1;
}

// The state after all whole stripes, which `at` is moved behind.
uint64_t XxhashStripes(ByteView bytes, size_t* at) {
  uint64_t lanes[4] = {kPrime1 + kPrime2, kPrime2, 0, 0 - kPrime1};
  for (; bytes.Size() - *at >= kXxhashStripe; *at += kXxhashStripe) {
    const Le64* words = bytes.At<Le64>(*at, 4);
    for (int i = 0; i < 4; ++i) lanes[i] = XxhashRound(lanes[i], words[i].Get());
  }
  uint64_t hash = RotateLeft(lanes[0], 1) + RotateLeft(lanes[1], 7) + RotateLeft(lanes[2], 12) +
                  RotateLeft(lanes[3], 18);
  for (const uint64_t lane : lanes) hash = (hash ^ XxhashRound(0, lane)) * kPrime1 + kPrime4;
  return hash;
}

// --- SHA-256 ---------------------------------------------------------------------------------

constexpr size_t kShaBlock = 64;

// First 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr uint32_t kShaConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

uint32_t BigEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

void PutBigEndian32(uint32_t value, uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

void ShaBlock(const uint8_t* block, uint32_t* state) {
  uint32_t w[64];
  for (size_t i = 0; i < 16; ++i) w[i] = BigEndian32(block + 4 * i);
  for (int i = 16; i < 64; ++i) {
    const uint32_t s0 = RotateRight(w[i - 15], 7) ^ RotateRight(w[i - 15], 18) ^ (w[i - 15] >> 3);
    const uint32_t s1 = RotateRight(w[i - 2], 17) ^ RotateRight(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }

  uint32_t v[8];  // a to h
  memcpy(v, state, sizeof v);
  for (int i = 0; i < 64; ++i) {
    const uint32_t s1 = RotateRight(v[4], 6) ^ RotateRight(v[4], 11) ^ RotateRight(v[4], 25);
    const uint32_t choice = (v[4] & v[5]) ^ (~v[4] & v[6]);
    const uint32_t one = v[7] + s1 + choice + kShaConstants[i] + w[i];
    const uint32_t s0 = RotateRight(v[0], 2) ^ RotateRight(v[0], 13) ^ RotateRight(v[0], 22);
    const uint32_t majority = (v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]);
    std::copy_backward(v, v + 7, v + 8);
    v[4] += one;
    v[0] = one + s0 + majority;
  }
  for (int i = 0; i < 8; ++i) state[i] += v[i];
}

// --- BLAKE2b ---------------------------------------------------------------------------------

constexpr size_t kBlakeBlock = 128;

constexpr uint64_t kBlakeStart[8] = {
    0x6a09e667f3bcc908ULL, 0xbb67ae8584caa73bULL, 0x3c6ef372fe94f82bULL, 0xa54ff53a5f1d36f1ULL,
    0x510e527fade682d1ULL, 0x9b05688c2b3e6c1fULL, 0x1f83d9abfb41bd6bULL, 0x5be0cd19137e2179ULL};

// Order of the message words in each round; the last two rounds are the first two again.
constexpr uint8_t kBlakeOrder[10][16] = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
                                         {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
                                         {11, 8, 12, 0, 5, 2, 15, 13, 10, 14, 3, 6, 7, 1, 9, 4},
                                         {7, 9, 3, 1, 13, 12, 11, 14, 2, 6, 5, 10, 4, 0, 15, 8},
                                         {9, 0, 5, 7, 2, 4, 10, 15, 14, 1, 11, 12, 6, 8, 3, 13},
                                         {2, 12, 6, 10, 0, 11, 8, 3, 4, 13, 7, 5, 15, 14, 1, 9},
                                         {12, 5, 1, 15, 14, 13, 4, 10, 0, 7, 6, 3, 9, 2, 8, 11},
                                         {13, 11, 7, 14, 12, 1, 3, 9, 5, 0, 15, 4, 8, 6, 2, 10},
                                         {6, 15, 14, 9, 11, 3, 0, 8, 12, 2, 13, 7, 1, 4, 10, 5},
                                         {10, 2, 8, 4, 7, 6, 1, 5, 15, 11, 9, 14, 3, 12, 13, 0}};

// The words of the state that each of the eight mixings of a round works on.
constexpr uint8_t kBlakeMix[8][4] = {{0, 4, 8, 12},  {1, 5, 9, 13},  {2, 6, 10, 14}, {3, 7, 11, 15},
                                     {0, 5, 10, 15}, {1, 6, 11, 12}, {2, 7, 8, 13},  {3, 4, 9, 14}};

void BlakeMix(uint64_t* v, const uint8_t* place, uint64_t x, uint64_t y) {
  uint64_t& a = v[place[0]];
  uint64_t& b = v[place[1]];
  uint64_t& c = v[place[2]];
  uint64_t& d = v[place[3]];
  a += b + x;
  d = RotateRight(d ^ a, 32);
  c += d;
  b = RotateRight(b ^ c, 24);
  a += b + y;
  d = RotateRight(d ^ a, 16);
  c += d;
  b = RotateRight(b ^ c, 63);
}

// Takes one block in; `counted` is the number of bytes so far, this block's included.
void BlakeBlock(const uint8_t* block, uint64_t counted, bool last, uint64_t* state) {
  const Le64* words = ByteView(block, kBlakeBlock).At<Le64>(0, 16);
  uint64_t v[16];
  memcpy(v, state, 64);
  memcpy(v + 8, kBlakeStart, 64);
  v[12] ^= counted;
  if (last) v[14] = ~v[14];
  for (int round = 0; round < 12; ++round) {
    const uint8_t* order = kBlakeOrder[round % 10];
    for (size_t i = 0; i < 8; ++i)
      BlakeMix(v, kBlakeMix[i], words[order[2 * i]].Get(), words[order[2 * i + 1]].Get());
  }
  for (int i = 0; i < 8; ++i) state[i] ^= v[i] ^ v[i + 8];
}

}  // namespace

uint64_t Xxhash64(ByteView bytes) {
  size_t at = 0;
  uint64_t hash = bytes.Size() >= kXxhashStripe ? XxhashStripes(bytes, &at) : kPrime5;
  hash += bytes.Size();

  for (; bytes.Size() - at >= 8; at += 8)
    hash = RotateLeft(hash ^ XxhashRound(0, bytes.At<Le64>(at)->Get()), 27) * kPrime1 + kPrime4;
  if (bytes.Size() - at >= 4) {
    hash = RotateLeft(hash ^ (bytes.At<Le32>(at)->Get() * kPrime1), 23) * kPrime2 + kPrime3;
    at += 4;
  }
  for (; at < bytes.Size(); ++at)
    hash = RotateLeft(hash ^ (bytes.Data()[at] * kPrime5), 11) * kPrime1;

  hash = (hash ^ (hash >> 33)) * kPrime2;
  hash = (hash ^ (hash >> 29)) * kPrime3;
  return hash ^ (hash >> 32);
}

Hash256 Sha256(ByteView bytes) {
  // First 32 bits of the fractional parts of the square roots of the first 8 primes.
  uint32_t state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  size_t at = 0;
  for (; bytes.Size() - at >= kShaBlock; at += kShaBlock) ShaBlock(bytes.Data() + at, state);

  // The rest, a one bit, zeros, and the length in bits at the end of a block.
  uint8_t tail[2 * kShaBlock] = {};
  const size_t rest = bytes.Size() - at;
  if (rest > 0) memcpy(tail, bytes.Data() + at, rest);
  tail[rest] = 0x80;
  const size_t end = rest + 9 <= kShaBlock ? kShaBlock : 2 * kShaBlock;
  const uint64_t bits = uint64_t{bytes.Size()} * 8;
  PutBigEndian32(static_cast<uint32_t>(bits >> 32), tail + end - 8);
  PutBigEndian32(static_cast<uint32_t>(bits), tail + end - 4);
  for (size_t block = 0; block < end; block += kShaBlock) ShaBlock(tail + block, state);

  Hash256 hash;
  for (size_t i = 0; i < 8; ++i) PutBigEndian32(state[i], &hash[4 * i]);
  return hash;
}

Hash256 Blake2b256(ByteView bytes) {
  uint64_t state[8];
  memcpy(state, kBlakeStart, sizeof state);
  state[0] ^= 0x01010000 ^ sizeof(Hash256);  // no key, sequential, length of the digest

  size_t at = 0;
  for (; bytes.Size() - at > kBlakeBlock; at += kBlakeBlock)
    BlakeBlock(bytes.Data() + at, at + kBlakeBlock, /*last=*/false, state);
  uint8_t tail[kBlakeBlock] = {};
  if (bytes.Size() > at) memcpy(tail, bytes.Data() + at, bytes.Size() - at);
  BlakeBlock(tail, bytes.Size(), /*last=*/true, state);

  Hash256 hash;
  for (size_t i = 0; i < 4; ++i) {
    Le64 word;
    word.Set(state[i]);
    memcpy(&hash[8 * i], &word, sizeof word);
  }
  return hash;
}

}  // namespace ZorvEngine
