// What keeps a run of inputs for OpenSSL quiet and unattended.
#pragma once

#include <Plinth/Log.h>
#include <openssl/err.h>
#include <openssl/ui.h>

#include "FuzzBytes.h"

namespace Veltro::Fuzz {

/// Log lines are made, and dropped; prompts for passwords fail.
inline void leaveAlone() {
    Plinth::setLogSink([](int, const char*, const char*, int, const char*) {});
    Plinth::setLogLevel(Plinth::LOG_LEVEL_TRACE);
    UI_METHOD* nobody = UI_create_method("nobody");
    UI_method_set_reader(nobody, [](UI*, UI_STRING*) { return 0; });
    UI_set_default_method(nobody);
}

/// No operation may leave an error behind for whatever the thread does next.
inline void requireEmptyErrorQueue() {
    require(ERR_peek_error() == 0);
}

}  // namespace Veltro::Fuzz
