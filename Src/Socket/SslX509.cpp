#include <Ravelo/SslX509.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

#include "Log.h"
#include "Socket/SslSetup.h"
#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

static_assert(sizeof(CertSubjectMsg) == 512, "applications of other builds pass this record");

namespace {

/// The library's one trace line without the usual beginning.
void logFieldWidths(const char* function, int line) {
    static constexpr auto file = sourceName(__FILE__);
    Plinth::logFilter(Plinth::LOG_LEVEL_TRACE, "Unknown", file.text.data(), function, line, "Unknown",
                      "%lu, %lu\n\n", static_cast<unsigned long>(sizeof(CertSubjectMsg::country)),
                      static_cast<unsigned long>(sizeof(CertSubjectMsg::state)));
}

/// Copies a text into a field and fills the rest of the field with NULs.
template <std::size_t Size>
void copyText(char (&field)[Size], const char* text) {
    const char* end = std::find(text, text + Size, '\0');
    std::fill(std::copy(text, end, field), field + Size, '\0');
}

/// Reads a subject's attributes one after the other through one scratch buffer, which a missing attribute
/// leaves as it was.
class CSubjectReader {
public:
    explicit CSubjectReader(X509_NAME* subject) : m_subject(subject) {}

    /// Reads an attribute into its field. @return whether the sum of the results still is 0 or more.
    template <std::size_t Size>
    bool read(int nid, char (&field)[Size]) {
        m_sum +=
            X509_NAME_get_text_by_NID(m_subject, nid, m_scratch.data(), static_cast<int>(m_scratch.size()));
        copyText(field, m_scratch.data());
        return m_sum >= 0;
    }
    int sum() const { return m_sum; }

private:
    X509_NAME* m_subject;
    std::array<char, 256> m_scratch{};
    int m_sum = 0;
};

}  // namespace

CSslX509::CSslX509() : m_internal(nullptr) {
    if (SslSetup::keepPastExit() != 0) return;
    const CErrorQueueKeeper errors;
    std::unique_ptr<SSslX509Record> record(new (std::nothrow) SSslX509Record);
    if (record != nullptr && record->m_chain != nullptr && record->m_trust != nullptr)
        m_internal = record.release();
}

CSslX509::~CSslX509() {
    delete m_internal;
}

int CSslX509::SetCert(x509_st* cert) {
    TCertificate taken(cert);
    if (m_internal == nullptr) return -1;
    m_internal->m_cert = std::move(taken);
    return 0;
}

int CSslX509::GetCertSN(unsigned char* buf, int& len) {
    if (m_internal == nullptr || m_internal->m_cert == nullptr) return -1;
    const ASN1_INTEGER* serial = X509_get0_serialNumber(m_internal->m_cert.get());
    const int room = len;
    len = ASN1_STRING_length(serial);
    if (len > room) return -2;
    if (buf == nullptr) return -1;
    std::copy_n(ASN1_STRING_get0_data(serial), len, buf);
    return 0;
}

int CSslX509::GetCertSubjectMsg(CertSubjectMsg* msg) {
    logFieldWidths(__func__, __LINE__);
    if (msg == nullptr || m_internal == nullptr || m_internal->m_cert == nullptr) return -1;
    std::memset(msg, 0, sizeof(*msg));
    X509_NAME* subject = X509_get_subject_name(m_internal->m_cert.get());
    if (subject == nullptr) return -1;
    CSubjectReader reader(subject);
    const bool complete =
        reader.read(NID_countryName, msg->country) && reader.read(NID_stateOrProvinceName, msg->state) &&
        reader.read(NID_localityName, msg->locality) &&
        reader.read(NID_organizationName, msg->organization) &&
        reader.read(NID_organizationalUnitName, msg->unit) && reader.read(NID_commonName, msg->common_name);
    return complete ? reader.sum() : -1;
}

}  // namespace Veltro::Ravelo
