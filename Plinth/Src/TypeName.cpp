#include <Plinth/TypeName.h>

#if defined(__GNUC__)
#include <cxxabi.h>
#endif

#include <cstdlib>
#include <memory>

namespace Veltro::Plinth {

std::string readableTypeName(const std::type_info& type) {
#if defined(__GNUC__)
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    if (status == 0 && name) return name.get();
#endif
    return type.name();
}

}  // namespace Veltro::Plinth
