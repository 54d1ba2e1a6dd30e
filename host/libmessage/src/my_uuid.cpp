#include "zelvar/my_uuid.h"

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <cstring>
#include <mutex>
#include <random>

namespace zelvar {

namespace {

// Every request carries a fresh session, and libuuid's random UUIDs cost five
// system calls each (it reseeds from the pid, uid and clock every time), which
// is most of what an idle agent asks of the kernel. Sessions only have to be
// unique, not secret: a generator seeded once from the kernel's randomness
// gives the same 122 random bits without a system call. A forked child seeds
// afresh, so that it never repeats its parent's sessions.
struct SessionRandom {
  SessionRandom() {
    Seed();
    pthread_atfork(nullptr, nullptr, [] { Instance().Seed(); });
  }
  void Seed() {
    std::seed_seq::result_type words[8] = {};
    if (getrandom(words, sizeof words, 0) != static_cast<ssize_t>(sizeof words)) {
      std::random_device device;
      for (auto& word : words) word = device();
    }
    std::seed_seq sequence(std::begin(words), std::end(words));
    engine.seed(sequence);
  }
  static SessionRandom& Instance() {
    static SessionRandom random;
    return random;
  }
  std::mutex lock;  // the command-line client may ask from more than one thread
  std::mt19937_64 engine;
};

}  // namespace

std::string MyUuid::NewUuid() {
  SessionRandom& random = SessionRandom::Instance();
  uint64_t halves[2];
  {
    std::lock_guard<std::mutex> hold(random.lock);
    halves[0] = random.engine(), halves[1] = random.engine();
  }
  uuid_t uuid;
  std::memcpy(uuid, halves, sizeof uuid);
  uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0F) | 0x40);  // version 4: random
  uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3F) | 0x80);  // the RFC 4122 variant
  char text[37];
  uuid_unparse_lower(uuid, text);
  return std::string(text, 36);
}

}  // namespace zelvar
