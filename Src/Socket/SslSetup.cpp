#include "Socket/SslSetup.h"

#include <openssl/ssl.h>

#include "Log.h"
#include "Socket/DtlsTicketKeys.h"

namespace Veltro::Ravelo::SslSetup {

int keepPastExit() {
    return OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 ? 0 : -1;
}

void start() {
    if (OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1) {
        RAVELO_LOG(Plinth::LOG_LEVEL_FATAL, "%s : OPENSSL_init_ssl failed!\n", __func__);
        return;
    }
    CDtlsTicketKeys::shared().Init();
}

}  // namespace Veltro::Ravelo::SslSetup
