// What the reactor needs of the media receive threads. Paced receivers are not part of the library yet.
#pragma once

namespace Veltro::Ravelo::RecvThreads {

inline void start(unsigned /*processors*/, int /*priority*/, int /*policy*/, int /*param*/) {}
inline void stop() {}
inline void setPace(int /*value*/) {}

}  // namespace Veltro::Ravelo::RecvThreads
