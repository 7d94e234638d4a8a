// What the TLS examples take from their command lines: arguments of the form name=value.
#pragma once

#include <Ravelo/Ravelo.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

/// The arguments by their names; only read, so that any thread may ask.
class CTlsOptions {
public:
    CTlsOptions(int argc, char** argv) {
        for (int i = 1; i < argc; ++i) {
            const std::string argument = argv[i];
            const std::size_t end = argument.find('=');
            m_values[argument.substr(0, end)] = end < argument.size() ? argument.substr(end + 1) : "";
        }
    }
    /// Empty if it was not given.
    std::string Get(const char* name) const {
        const auto found = m_values.find(name);
        return found != m_values.end() ? found->second : "";
    }
    bool Has(const char* name) const { return !Get(name).empty(); }
    int GetNumber(const char* name, int otherwise) const {
        return Has(name) ? std::atoi(Get(name).c_str()) : otherwise;
    }

private:
    std::map<std::string, std::string> m_values;
};

/// Makes cert=, key=, chain= and ca= the certificates of a TLS object. @return success.
template <typename TTls>
bool UseCertificates(TTls& tls, const CTlsOptions& options) {
    using namespace Veltro::Ravelo;
    int type = 0;
    auto x509 = std::make_unique<CSslX509>();
    if (options.Has("cert")) {
        if (x509->SetCert(options.Get("cert").c_str(), options.Get("key").c_str()) != 0) return false;
        if (options.Has("chain") && x509->SetCA(options.Get("chain").c_str()) != 0) return false;
        type |= SslCertOwn;
    }
    if (options.Has("ca")) {
        if (x509->SetTrustCA(options.Get("ca").c_str()) != 0) return false;
        type |= SslCertVerifyPeer;
    }
    return tls.SetOption(SslOptCert, type, x509.release()) == 0;  // it is the object's from now on
}

/// Whether the peer of a connection stands in the list of crl=.
inline bool IsRevoked(Veltro::Ravelo::CSslStream& stream, const CTlsOptions& options) {
    Veltro::Ravelo::CSslX509 shown;
    return options.Has("crl") && stream.GetPeerCert(&shown) == 0 &&
           shown.CheckCertIsRevoked(options.Get("crl").c_str()) != 0;
}
