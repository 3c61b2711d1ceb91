// Choosing the instruction set the rows are composed with, and the composer's entry.
#include <atomic>

#include "ops/Portable.h"

namespace eyeframe {

#ifdef EYE_COMPOSER_AVX2
void composeAvx2(const Plan& plan, uint8_t* out);  // ops/Avx2.cpp
#endif
#ifdef EYE_COMPOSER_NEON
void composeNeon(const Plan& plan, uint8_t* out);  // ops/Neon.cpp
#endif

namespace {

__attribute__((flatten)) void composePortable(const Plan& plan, uint8_t* out) {
  composeRows<PortableOps>(plan, out);
}

bool cpuHas(Isa isa) {
  switch (isa) {
    case Isa::Portable:
      return true;
    case Isa::Avx2:
#ifdef EYE_COMPOSER_AVX2
      return __builtin_cpu_supports("avx2");
#else
      return false;
#endif
    case Isa::Neon:
#ifdef EYE_COMPOSER_NEON
      return true;  // every AArch64 CPU has it
#else
      return false;
#endif
  }
  return false;
}

std::atomic<int>& chosenIsa() {
  static std::atomic<int> chosen{static_cast<int>(
      cpuHas(Isa::Neon) ? Isa::Neon : (cpuHas(Isa::Avx2) ? Isa::Avx2 : Isa::Portable))};
  return chosen;
}

}  // namespace

Isa activeIsa() {
  return static_cast<Isa>(chosenIsa().load(std::memory_order_relaxed));
}

bool selectIsa(Isa isa) {
  if (!cpuHas(isa)) return false;
  chosenIsa().store(static_cast<int>(isa), std::memory_order_relaxed);
  return true;
}

const char* isaName(Isa isa) {
  switch (isa) {
    case Isa::Portable:
      return "portable";
    case Isa::Avx2:
      return "avx2";
    case Isa::Neon:
      return "neon";
  }
  return "?";
}

void compose(const Scene& scene, uint8_t* out) {
  const Plan plan = makePlan(scene);
  switch (activeIsa()) {
#ifdef EYE_COMPOSER_AVX2
    case Isa::Avx2:
      composeAvx2(plan, out);
      return;
#endif
#ifdef EYE_COMPOSER_NEON
    case Isa::Neon:
      composeNeon(plan, out);
      return;
#endif
    default:
      composePortable(plan, out);
      return;
  }
}

}  // namespace eyeframe
