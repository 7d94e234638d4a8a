#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Socket/SslX509Record.h"
#include "Support/Certificates.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TNames = std::vector<std::string>;

constexpr int REMOVE = 1;

/// An object whose own certificate is `own` and whose chain has the given ones, in this order.
struct SChain {
    SChain(const std::string& own, const TNames& names) {
        EXPECT_EQ(0,
                  object.SetCert(certificate(own + ".pem").c_str(), certificate(own + "_key.pem").c_str()));
        for (const std::string& name : names) EXPECT_EQ(0, object.SetCA(certificate(name + ".pem").c_str()));
    }
    /// The common names in the chain.
    TNames names() {
        TNames found;
        STACK_OF(X509)* chain = SSslX509Record::of(object)->m_chain.get();
        for (int i = 0; i < sk_X509_num(chain); ++i) {
            char name[64] = {};
            X509_NAME* subject = X509_get_subject_name(sk_X509_value(chain, i));
            X509_NAME_get_text_by_NID(subject, NID_commonName, name, sizeof name);
            found.emplace_back(name);
        }
        return found;
    }

    CSslX509 object;
};

const TNames DEEP_PATH = {"intermediate_3", "intermediate_2", "intermediate_1", "root_ca"};

/// Calls `check` with every order of some names.
template <typename Check>
void forEveryOrder(TNames names, Check check) {
    std::sort(names.begin(), names.end());
    int orders = 0;
    do {
        SCOPED_TRACE(testing::PrintToString(names));
        check(names);
        ++orders;
    } while (std::next_permutation(names.begin(), names.end()));
    int expected = 1;
    for (std::size_t n = 2; n <= names.size(); ++n) expected *= static_cast<int>(n);
    EXPECT_EQ(expected, orders);
}

TEST(SslX509Chain, WithoutACertificateThereIsNothingToCheck) {
    CSslX509 object;
    ASSERT_EQ(0, object.SetCA(certificate("root_ca.pem").c_str()));
    EXPECT_EQ(-1, object.CheckCertificateChain(0));
}

TEST(SslX509Chain, AnEmptyChainIsMinusTwo) {
    SChain chain("server", {});
    EXPECT_EQ(-2, chain.object.CheckCertificateChain(0));
    EXPECT_EQ(-2, chain.object.CheckCertificateChain(REMOVE));
}

TEST(SslX509Chain, FourCertificatesInEveryOrderReachTheRoot) {
    forEveryOrder(DEEP_PATH, [](const TNames& names) {
        SChain chain("deep", names);
        EXPECT_EQ(0, chain.object.CheckCertificateChain(0));
        EXPECT_EQ(DEEP_PATH, chain.names());
    });
}

TEST(SslX509Chain, AnUnrelatedCertificateIsRemovedInEveryOrder) {
    TNames names = DEEP_PATH;
    names.emplace_back("other_ca");
    forEveryOrder(names, [](const TNames& order) {
        SChain chain("deep", order);
        EXPECT_EQ(0, chain.object.CheckCertificateChain(REMOVE));
        EXPECT_EQ(DEEP_PATH, chain.names());
    });
}

TEST(SslX509Chain, WithoutTheFlagAnUnrelatedCertificateStaysBehindThePath) {
    TNames names = DEEP_PATH;
    names.emplace_back("other_ca");
    const TNames path_and_other = names;
    forEveryOrder(names, [&path_and_other](const TNames& order) {
        SChain chain("deep", order);
        EXPECT_EQ(0, chain.object.CheckCertificateChain(0));
        EXPECT_EQ(path_and_other, chain.names());
    });
}

TEST(SslX509Chain, OtherFlagsRemoveNothing) {
    SChain chain("server", {"other_ca", "intermediate_1"});
    EXPECT_EQ(2, chain.object.CheckCertificateChain(2));
    EXPECT_EQ((TNames{"intermediate_1", "other_ca"}), chain.names());
}

TEST(SslX509Chain, APathThatReachesNoRootIsCountedWithTheOwnCertificate) {
    SChain chain("deep", {"intermediate_2", "intermediate_3"});
    EXPECT_EQ(3, chain.object.CheckCertificateChain(0));
}

TEST(SslX509Chain, AGapEndsThePath) {
    SChain chain("deep", {"root_ca", "intermediate_1", "intermediate_3"});
    EXPECT_EQ(2, chain.object.CheckCertificateChain(0));
    EXPECT_EQ((TNames{"intermediate_3", "root_ca", "intermediate_1"}), chain.names());
    EXPECT_EQ(2, chain.object.CheckCertificateChain(REMOVE));
    EXPECT_EQ(TNames{"intermediate_3"}, chain.names());
}

TEST(SslX509Chain, AChainOfStrangersIsOneAndLeftAlone) {
    SChain chain("server", {"other_ca", "intermediate_3"});
    EXPECT_EQ(1, chain.object.CheckCertificateChain(0));
    EXPECT_EQ((TNames{"other_ca", "intermediate_3"}), chain.names());
}

TEST(SslX509Chain, AChainOfStrangersIsEmptiedByTheFlag) {
    SChain chain("server", {"other_ca", "intermediate_3"});
    EXPECT_EQ(1, chain.object.CheckCertificateChain(REMOVE));
    EXPECT_TRUE(chain.names().empty());
    EXPECT_EQ(-2, chain.object.CheckCertificateChain(REMOVE));
}

TEST(SslX509Chain, TheRootAloneEndsThePathOfWhatItIssued) {
    SChain chain("intermediate_1", {"root_ca"});
    EXPECT_EQ(0, chain.object.CheckCertificateChain(REMOVE));
}

TEST(SslX509Chain, ACertificateThatIsThereTwiceStaysBehindThePath) {
    SChain chain("deep", {"intermediate_2", "intermediate_3", "intermediate_2"});
    EXPECT_EQ(3, chain.object.CheckCertificateChain(0));
    EXPECT_EQ((TNames{"intermediate_3", "intermediate_2", "intermediate_2"}), chain.names());
}

TEST(SslX509Chain, ARootThatIsThereTwiceContinuesItself) {
    SChain chain("intermediate_1", {"root_ca", "root_ca"});
    EXPECT_EQ(0, chain.object.CheckCertificateChain(REMOVE));
    EXPECT_EQ((TNames{"root_ca", "root_ca"}), chain.names());
}

TEST(SslX509Chain, ASelfSignedCertificateIsItsOwnPath) {
    SChain chain("root_ca", {"root_ca"});
    EXPECT_EQ(0, chain.object.CheckCertificateChain(0));
}

}  // namespace
}  // namespace Veltro::Ravelo
