// The environment handed to a program, and its index of names.
#include "platform/env.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>

namespace {

// The key of this run's name hash: random, so that no client can choose names that collide.
struct HashKey {
  uint64_t k0 = 0x0706050403020100ull;
  uint64_t k1 = 0x0f0e0d0c0b0a0908ull;
  HashKey() {
    uint64_t key[2];
    if (::getrandom(key, sizeof key, 0) == static_cast<ssize_t>(sizeof key)) {
      k0 = key[0];
      k1 = key[1];
    }
  }
};

uint64_t rotl(uint64_t x, int bits) { return (x << bits) | (x >> (64 - bits)); }

struct SipState {
  uint64_t v0, v1, v2, v3;
  void round() {
    v0 += v1; v1 = rotl(v1, 13); v1 ^= v0; v0 = rotl(v0, 32);
    v2 += v3; v3 = rotl(v3, 16); v3 ^= v2;
    v0 += v3; v3 = rotl(v3, 21); v3 ^= v0;
    v2 += v1; v1 = rotl(v1, 17); v1 ^= v2; v2 = rotl(v2, 32);
  }
  void absorb(uint64_t word) {
    v3 ^= word;
    round();
    v0 ^= word;
  }
};

// SipHash-1-3 of `bytes` under this run's key: a keyed hash whose collisions cannot be found
// without the key.
uint64_t nameHash(const char* bytes, uint64_t length) {
  static const HashKey key;
  SipState s{key.k0 ^ 0x736f6d6570736575ull, key.k1 ^ 0x646f72616e646f6dull,
             key.k0 ^ 0x6c7967656e657261ull, key.k1 ^ 0x7465646279746573ull};
  uint64_t whole = length & ~uint64_t{7};
  for (uint64_t at = 0; at < whole; at += 8) {
    uint64_t word;
    std::memcpy(&word, bytes + at, sizeof word);
    s.absorb(word);
  }
  uint64_t last = length << 56;
  for (uint64_t at = whole; at < length; ++at)
    last |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at])) << (8 * (at - whole));
  s.absorb(last);
  s.v2 ^= 0xff;
  s.round();
  s.round();
  s.round();
  return s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
}

}  // namespace

Ref<Env> Env::create() { return new Env(); }

size_t Env::slotOf(const char* name, uint64_t length) const {
  const size_t mask = index_.size() - 1;
  for (size_t slot = nameHash(name, length) & mask;; slot = (slot + 1) & mask) {
    uint32_t listed = index_[slot];
    if (listed == 0) return slot;
    const Pair& candidate = pairs_[listed - 1];
    if (candidate.nameLength == length && std::memcmp(buffer_.data() + candidate.at, name, length) == 0)
      return slot;
  }
}

void Env::grow(size_t slots) {
  size_t size = 16;
  while (size < slots) size *= 2;
  index_.assign(size, 0);
  for (size_t i = 0; i < pairs_.size(); ++i)
    index_[slotOf(buffer_.data() + pairs_[i].at, pairs_[i].nameLength)] = static_cast<uint32_t>(i + 1);
}

void Env::reserve(uint64_t count, uint64_t bytes) {
  pairs_.reserve(count);
  buffer_.reserve(bytes + 2 * count);
  if (2 * count > index_.size()) grow(2 * count);
}

void Env::set(const char* name, uint64_t nameLength, const char* value, uint64_t valueLength) {
  if (2 * (pairs_.size() + 1) > index_.size()) grow(2 * index_.size());
  size_t slot = slotOf(name, nameLength);
  Pair pair{buffer_.size(), nameLength, valueLength};
  buffer_.append(name, nameLength).append(1, '=').append(value, valueLength).append(1, '\0');
  if (index_[slot] != 0) {
    pairs_[index_[slot] - 1] = pair;  // in place; the old text stays unused in the buffer
    return;
  }
  pairs_.push_back(pair);
  index_[slot] = static_cast<uint32_t>(pairs_.size());
}

void Env::set(const Ref<String>& name, const Ref<String>& value) {
  if (!name) return;
  set(name->c_str(), name->length(), value ? value->c_str() : "", value ? value->length() : 0);
}

Ref<String> Env::nameAt(uint64_t i) const {
  return i < pairs_.size() ? String::create(text(i), static_cast<int64_t>(pairs_[i].nameLength)) : nullptr;
}

Ref<String> Env::valueAt(uint64_t i) const {
  if (i >= pairs_.size()) return nullptr;
  return String::create(text(i) + pairs_[i].nameLength + 1, static_cast<int64_t>(pairs_[i].valueLength));
}

bool Env::named(uint64_t i, const char* name) const {
  return i < pairs_.size() && std::strlen(name) == pairs_[i].nameLength &&
         std::memcmp(text(i), name, pairs_[i].nameLength) == 0;
}

Ref<String> Env::get(const char* name) const {
  if (!name || index_.empty()) return nullptr;
  uint32_t listed = index_[slotOf(name, std::strlen(name))];
  return listed != 0 ? valueAt(listed - 1) : nullptr;
}
