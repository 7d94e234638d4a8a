// Looks a revoked certificate up in the list that the input is.
#include <Ravelo/SslX509.h>

#include <string>

#include "FuzzBytes.h"
#include "FuzzFile.h"
#include "FuzzOpenSsl.h"

namespace {

using namespace Veltro::Ravelo;
using Veltro::Fuzz::require;

CSslX509& revoked() {
    static CSslX509 object;
    return object;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Veltro::Fuzz::leaveAlone();
    const std::string name = std::string(RAVELO_CERTIFICATES) + "/revoked";
    require(revoked().SetCert((name + ".pem").c_str(), (name + "_key.pem").c_str()) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Veltro::Fuzz::CFuzzFile file;
    const int result =
        revoked().CheckCertIsRevoked(file.with(std::string(reinterpret_cast<const char*>(data), size)));
    require(result >= -1 && result <= 1);
    Veltro::Fuzz::requireEmptyErrorQueue();
    return 0;
}
