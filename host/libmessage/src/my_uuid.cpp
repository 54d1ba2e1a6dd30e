#include "zelvar/my_uuid.h"

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cstring>
#include <random>

namespace zelvar {

namespace {

// Every request carries a fresh session, and libuuid's random UUIDs cost five
// system calls each (it reseeds from the pid, uid and clock every time), which
// is most of what an idle agent asks of the kernel. Sessions only have to be
// unique, not secret: a generator per thread, seeded from the kernel's
// randomness, gives the same 122 random bits without a system call.
//
// A forked child must not repeat its parent's sessions, so it seeds afresh.
// The fork handler only bumps a counter (it runs in the child, where taking
// locks or allocating is unsafe); each thread reseeds when it sees it moved.
std::atomic<unsigned> g_forks{0};

std::mt19937_64& SessionEngine() {
  static const bool watchingForks = (pthread_atfork(nullptr, nullptr, [] { ++g_forks; }), true);
  (void)watchingForks;
  thread_local std::mt19937_64 engine;
  thread_local unsigned seededAfterForks = ~0u;
  const unsigned forks = g_forks.load(std::memory_order_relaxed);
  if (seededAfterForks != forks) {
    std::seed_seq::result_type words[8] = {};
    if (getrandom(words, sizeof words, 0) != static_cast<ssize_t>(sizeof words)) {
      std::random_device device;
      for (auto& word : words) word = device();
    }
    std::seed_seq sequence(std::begin(words), std::end(words));
    engine.seed(sequence);
    seededAfterForks = forks;
  }
  return engine;
}

}  // namespace

std::string MyUuid::NewUuid() {
  std::mt19937_64& engine = SessionEngine();
  const uint64_t halves[2] = {engine(), engine()};
  uuid_t uuid;
  std::memcpy(uuid, halves, sizeof uuid);
  uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0F) | 0x40);  // version 4: random
  uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3F) | 0x80);  // the RFC 4122 variant
  char text[37];
  uuid_unparse_lower(uuid, text);
  return std::string(text, 36);
}

}  // namespace zelvar
