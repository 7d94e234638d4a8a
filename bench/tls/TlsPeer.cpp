#include "tls/TlsPeer.h"

#include <openssl/err.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Bench {

void die_of_tls(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    ERR_print_errors_fp(stderr);
    std::exit(1);
}

const char* certificates() {
    return RAVELO_CERTIFICATES;
}

void use_certificate(SSL_CTX* context) {
    const std::string folder = certificates();
    if (SSL_CTX_use_certificate_chain_file(context, (folder + "/server_chain.pem").c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, (folder + "/server_key.pem").c_str(), SSL_FILETYPE_PEM) != 1)
        die_of_tls("the server's certificate");
}

TSslContext server_context() {
    TSslContext context(SSL_CTX_new(TLS_server_method()));
    if (!context) die_of_tls("SSL_CTX_new");
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    use_certificate(context.get());
    return context;
}

TSslContext client_context() {
    TSslContext context(SSL_CTX_new(TLS_client_method()));
    const std::string root = std::string(certificates()) + "/root_ca.pem";
    if (!context || SSL_CTX_load_verify_locations(context.get(), root.c_str(), nullptr) != 1 ||
        SSL_CTX_set1_groups_list(context.get(), "P-256") != 1)
        die_of_tls("the client's context");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    return context;
}

}  // namespace Bench
