#pragma once

#include <functional>

namespace Veltro::Plinth {

/// A callable with three arguments; empty until one is assigned.
template <typename R, typename A1, typename A2, typename A3>
using TFunction3 = std::function<R(A1, A2, A3)>;

}  // namespace Veltro::Plinth
