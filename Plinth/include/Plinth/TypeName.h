#pragma once

#include <Plinth/Defs.h>

#include <string>
#include <typeinfo>

namespace Veltro::Plinth {

/// A type's name as its source writes it, with namespaces, on every compiler.
PLINTH_API std::string readableTypeName(const std::type_info& type);

}  // namespace Veltro::Plinth
