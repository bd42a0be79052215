// Keeping exceptions inside the library: every exported function runs its
// body through one of these, so that nothing (in practice only an allocation
// failure) crosses the interface.
#pragma once

namespace quillon::api {

template <class R, class F>
R Guarded(R fallback, F&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return fallback;
  }
}

template <class F>
void GuardedVoid(F&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
}

}  // namespace quillon::api
