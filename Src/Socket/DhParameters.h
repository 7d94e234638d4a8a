#pragma once

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

/// The parameters that servers use for ephemeral Diffie-Hellman; null without memory.
TPrivateKey makeDhParameters();

}  // namespace Veltro::Ravelo
