// What the pools' daemons need of the operator console.
#pragma once

namespace Veltro::Ravelo {

/// Registers the console command unless that was done, or given up, before: five attempts per process. Called
/// by the pools' daemons at each of their passes.
void registerConsoleOnce();

}  // namespace Veltro::Ravelo
