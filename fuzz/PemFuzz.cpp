// Loads a file in every way that a CSslX509 does, then reads what was loaded. The input is a byte that says
// what the rest is: 0 the file as it is, else the contents of one PEM block, whose armour is added here so
// that the fuzzer need not learn base 64.
#include <Ravelo/SslX509.h>
#include <openssl/evp.h>

#include <array>
#include <string>

#include "FuzzBytes.h"
#include "FuzzFile.h"
#include "FuzzOpenSsl.h"
#include "Socket/SslX509Record.h"

namespace {

using Veltro::Fuzz::CFuzzBytes;
using Veltro::Fuzz::require;
using namespace Veltro::Ravelo;

constexpr std::array LABELS = {"",
                               "CERTIFICATE",
                               "PRIVATE KEY",
                               "ENCRYPTED PRIVATE KEY",
                               "EC PRIVATE KEY",
                               "RSA PRIVATE KEY",
                               "TRUSTED CERTIFICATE",
                               "DSA PRIVATE KEY"};

std::string armoured(const std::string& label, const std::string& bytes) {
    if (label.empty()) return bytes;
    std::string text(bytes.size() / 3 * 4 + 8, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    for (std::size_t place = 64; place < text.size(); place += 65) text.insert(place, 1, '\n');
    return "-----BEGIN " + label + "-----\n" + text + "\n-----END " + label + "-----\n";
}

/// Reads what can be read of an own certificate.
void inspect(CSslX509& object, bool has_cert) {
    std::array<unsigned char, 32> serial{};
    int length = static_cast<int>(serial.size());
    const int result = object.GetCertSN(serial.data(), length);
    require(has_cert ? result == 0 || (result == -2 && length > 32) : result == -1);
    CertSubjectMsg subject;
    const int sum = object.GetCertSubjectMsg(&subject);
    require(has_cert ? sum >= -1 && sum <= 6 * 1024 * 1024 : sum == -1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Veltro::Fuzz::leaveAlone();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Veltro::Fuzz::CFuzzFile file;
    CFuzzBytes input(data, size);
    const char* label = LABELS[input.byte() % LABELS.size()];
    const char* path = file.with(armoured(label, input.bytes(size)));

    CSslX509 object;
    SSslX509Record& record = *SSslX509Record::of(object);
    const int loaded = object.SetCert(path, path);
    require(loaded <= 0 && loaded >= -3);
    require((loaded == 0) == (record.m_cert != nullptr) && (loaded == 0) == (record.m_key != nullptr));
    inspect(object, loaded == 0);

    const bool is_certificate = object.SetCA(path) == 0;
    require(sk_X509_num(record.m_chain.get()) == (is_certificate ? 1 : 0));
    require(object.SetTrustCA(path) == 0);
    require(is_certificate == (sk_X509_num(record.m_trust.get()) > 0));
    if (is_certificate) {
        // What was loaded as the chain is the own certificate now, and what is trusted its chain.
        require(SSslX509Record::setCert(object, TCertificate(sk_X509_pop(record.m_chain.get()))) == 0);
        inspect(object, true);
        record.m_chain.swap(record.m_trust);
        const int length = sk_X509_num(record.m_chain.get());
        const int path_length = object.CheckCertificateChain(1);
        require(path_length >= 0 && path_length <= length + 1);
        require(sk_X509_num(record.m_chain.get()) <= length);
    }
    Veltro::Fuzz::requireEmptyErrorQueue();
    return 0;
}
