#include "R3/R3Quiet.h"

namespace Veltro::Ravelo {

namespace {

thread_local int t_depth = 0;

}  // namespace

CR3Quiet::CR3Quiet() {
    ++t_depth;
}

CR3Quiet::~CR3Quiet() {
    --t_depth;
}

bool CR3Quiet::isOn() {
    return t_depth > 0;
}

}  // namespace Veltro::Ravelo
