#pragma once

#include <new>

namespace Veltro::Plinth {

/// An object that is made in place, without an allocation, and never destroyed: for a static that threads may
/// still use while the process's other statics go.
template <typename T>
class TImmortal {
public:
    TImmortal() { ::new (m_storage) T; }
    TImmortal(const TImmortal&) = delete;
    TImmortal& operator=(const TImmortal&) = delete;

    T& get() { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace Veltro::Plinth
