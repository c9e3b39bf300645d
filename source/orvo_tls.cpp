#define ORVO_SOURCE "orvo_tls"
// The TLS 1.0 method and the classic initialisation calls are deprecated in
// OpenSSL 3 but are exactly what the TLS 1.0 context needs.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "orvo_tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace orvo {

namespace {

std::atomic<bool> g_TlsReady(false);
std::mutex g_TlsInitLock;   // one initialisation at a time; nothing else runs under it

// The verify callback refuses certificates this deep or deeper, below the
// context's own depth limit of 4 that OpenSSL enforces.
const int kMaxVerifyDepth = 3;
const int kContextVerifyDepth = 4;

// Prints "<function>: <step> failed: <reason>", frees ctx, returns null.
SSL_CTX* FailContext(const char* function, const char* step, SSL_CTX* ctx)
{
    std::printf("%s: %s failed: %s\n", function, step, openssl_error_reason().c_str());
    SSL_CTX_free(ctx);
    return nullptr;
}

// Hands the password (userdata, a NUL-terminated copy) to OpenSSL: copied
// into its buffer, truncated to it and always terminated.
int PasswordCallback(char* buf, int size, int /*rwflag*/, void* userdata)
{
    if (buf == nullptr || size <= 0 || userdata == nullptr)
        return 0;
    std::strncpy(buf, static_cast<const char*>(userdata), static_cast<size_t>(size));
    buf[size - 1] = 0;
    return static_cast<int>(std::strlen(buf));
}

// Loads certFile (a chain) and its key into ctx; keyFile null takes the key
// from certFile (announced when announce is set). The password copy lives
// only while the key is read. Returns the failing step's message text or
// null.
const char* LoadCertificateAndKey(SSL_CTX* ctx, const char* function, const char* certFile,
                                  const char* keyFile, const char* keyPassword, bool announce)
{
    if (SSL_CTX_use_certificate_chain_file(ctx, certFile) != 1)
        return "SSL_CTX_use_certificate_file";
    if (keyFile == nullptr) {
        if (announce)
            std::printf("%s: using cert as key: %s\n", function, certFile);
        keyFile = certFile;
    }
    char* password = nullptr;
    if (keyPassword != nullptr) {
        password = strdup(keyPassword);
        SSL_CTX_set_default_passwd_cb(ctx, PasswordCallback);
        SSL_CTX_set_default_passwd_cb_userdata(ctx, password);
    }
    const int loaded = SSL_CTX_use_PrivateKey_file(ctx, keyFile, SSL_FILETYPE_PEM);
    if (password != nullptr) {
        SSL_CTX_set_default_passwd_cb(ctx, nullptr);
        SSL_CTX_set_default_passwd_cb_userdata(ctx, nullptr);
        OPENSSL_cleanse(password, std::strlen(password));
        std::free(password);
    }
    if (loaded != 1)
        return "SSL_CTX_use_PrivateKey_file";
    if (SSL_CTX_check_private_key(ctx) != 1)
        return "SSL_CTX_check_private_key";
    return nullptr;
}

int VerifyCallback(int ok, X509_STORE_CTX* store)
{
    const int depth = X509_STORE_CTX_get_error_depth(store);
    if (depth > kMaxVerifyDepth) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_CHAIN_TOO_LONG);
        std::printf("%s: verify_callback failed: %s\n", "verify_callback",
                    X509_verify_cert_error_string(X509_V_ERR_CERT_CHAIN_TOO_LONG));
        std::printf("Maximum depth %d, current depth %d\n", kMaxVerifyDepth, depth);
        return 0;
    }
    if (!ok)
        std::printf("%s: verify_callback failed: %s\n", "verify_callback",
                    X509_verify_cert_error_string(X509_STORE_CTX_get_error(store)));
    return ok;
}

// Prints title, then name one entry a line indented by 2.
void PrintName(const char* title, X509_NAME* name)
{
    std::printf("%s\n", title);
    std::fflush(stdout);
    X509_NAME_print_ex_fp(stdout, name, 2, XN_FLAG_MULTILINE);
    std::printf("\n");
}

// Index of the host name in an SSL_CTX's extra data (for SNI); -1 until
// first needed.
std::atomic<int> g_SniIndex(-1);

void FreeSniName(void* /*parent*/, void* ptr, CRYPTO_EX_DATA* /*ad*/, int /*idx*/, long /*argl*/,
                 void* /*argp*/)
{
    std::free(ptr);
}

int SniIndex()
{
    std::lock_guard<std::mutex> lock(g_TlsInitLock);
    if (g_SniIndex < 0)
        g_SniIndex = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeSniName);
    return g_SniIndex;
}

// A client handshake of a context with a peer host sends that name as SNI.
// The sockets make their sessions themselves, so the name is set when the
// handshake starts.
void SniInfoCallback(const SSL* constSsl, int where, int /*ret*/)
{
    if ((where & SSL_CB_HANDSHAKE_START) == 0)
        return;
    SSL* ssl = const_cast<SSL*>(constSsl);
    if (SSL_is_server(ssl) || SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name) != nullptr)
        return;
    const char* host = static_cast<const char*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), SniIndex()));
    if (host != nullptr)
        SSL_set_tlsext_host_name(ssl, host);
}

// Makes ctx check the peer's name (or address) against its certificate and
// send the name as SNI. false when OpenSSL refused the name.
bool SetPeerHost(SSL_CTX* ctx, const char* host)
{
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(ctx);
    const bool isAddress = X509_VERIFY_PARAM_set1_ip_asc(param, host) == 1;
    if (isAddress)
        return true;
    ERR_clear_error();
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (X509_VERIFY_PARAM_set1_host(param, host, 0) != 1)
        return false;
    SSL_CTX_set_ex_data(ctx, SniIndex(), strdup(host));
    SSL_CTX_set_info_callback(ctx, SniInfoCallback);
    return true;
}

// Trusted CAs of a modern context: the given ones, else the system's.
bool LoadTrust(SSL_CTX* ctx, const sTlsOptions& options)
{
    if (options.caFile == nullptr && options.caPath == nullptr)
        return SSL_CTX_set_default_verify_paths(ctx) == 1;
    return SSL_CTX_load_verify_locations(ctx, options.caFile, options.caPath) == 1;
}

}  // namespace

std::string openssl_error_reason()
{
    unsigned long last = 0;
    for (unsigned long e = ERR_get_error(); e != 0; e = ERR_get_error())
        last = e;
    if (last == 0)
        return std::string();
    const char* text = ERR_reason_error_string(last);
    if (text != nullptr)
        return text;
    char buf[256];
    ERR_error_string_n(last, buf, sizeof buf);
    return buf;
}

int openssl_lib_init()
{
    std::lock_guard<std::mutex> lock(g_TlsInitLock);
    if (g_TlsReady)
        return 1;
    SSL_library_init();
    OPENSSL_add_all_algorithms_noconf();
    if (RAND_status() != 1 && RAND_status() == 0) {
        std::printf("%s: RAND_status failed\n", "openssl_lib_init");
        return 0;
    }
    ERR_load_crypto_strings();
    SSL_load_error_strings();
    g_TlsReady = true;
    return 1;
}

ssl_ctx_st* openssl_create_ssl_ctx(const char* cipherList, const char* caFile, const char* caPath,
                                   const char* certFile, const char* keyFile,
                                   const char* keyPassword)
{
    static const char* const kFunction = "openssl_create_ssl_ctx";
    if (openssl_lib_init() != 1)
        return nullptr;
    SSL_CTX* ctx = SSL_CTX_new(TLSv1_method());
    if (ctx == nullptr)
        return FailContext(kFunction, "SSL_CTX_new", nullptr);
    // OpenSSL 3 refuses TLS 1.0 (and its SHA-1 signatures) from security
    // level 1 up; this context alone goes down to 0. A system-wide minimum
    // protocol from the configuration file must not apply to it either.
    SSL_CTX_set_security_level(ctx, 0);
    SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
    SSL_CTX_set_max_proto_version(ctx, TLS1_VERSION);
    if (cipherList != nullptr && SSL_CTX_set_cipher_list(ctx, cipherList) != 1)
        return FailContext(kFunction, "SSL_CTX_set_cipher_list", ctx);
    if (certFile != nullptr) {
        const char* step = LoadCertificateAndKey(ctx, kFunction, certFile, keyFile, keyPassword, true);
        if (step != nullptr)
            return FailContext(kFunction, step, ctx);
    }
    if (caFile == nullptr && caPath == nullptr)
        return ctx;
    if (SSL_CTX_set_default_verify_paths(ctx) != 1)
        return FailContext(kFunction, "SSL_CTX_set_default_verify_paths", ctx);
    if (SSL_CTX_load_verify_locations(ctx, caFile, caPath) != 1)
        return FailContext(kFunction, "SSL_CTX_load_verify_locations", ctx);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, VerifyCallback);
    SSL_CTX_set_verify_depth(ctx, kContextVerifyDepth);
    return ctx;
}

int openssl_show_peer_certificate(ssl_st* ssl)
{
    static const char* const kFunction = "openssl_show_peer_certificate";
    std::printf("\n");
    const SSL_CIPHER* cipher = SSL_get_current_cipher(ssl);
    if (cipher != nullptr)
        std::printf("%s: %s connection using %s (%u bits)\n", kFunction, SSL_get_version(ssl),
                    SSL_CIPHER_get_name(cipher),
                    static_cast<unsigned>(SSL_CIPHER_get_bits(cipher, nullptr)));
    else
        std::printf("%s: SSL_get_current_cipher failed: %s\n", kFunction, openssl_error_reason().c_str());

    X509* cert = SSL_get1_peer_certificate(ssl);
    if (cert != nullptr) {
        X509_NAME* subject = X509_get_subject_name(cert);
        PrintName("Certificate subject:", subject);
        char commonName[512] = "";
        X509_NAME_get_text_by_NID(subject, NID_commonName, commonName, sizeof commonName);
        std::printf("%s: commonName: %s\n", kFunction, commonName);
        PrintName("Certificate issuer:", X509_get_issuer_name(cert));
        std::printf("%s: Server public key is %d bit\n", kFunction, EVP_PKEY_bits(X509_get0_pubkey(cert)));
        X509_free(cert);
    } else {
        std::printf("%s: SSL_get_peer_certificate failed: %s\n", kFunction, openssl_error_reason().c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
    return cipher != nullptr ? 1 : 0;
}

ssl_ctx_st* openssl_create_modern_ssl_ctx(const sTlsOptions& options)
{
    static const char* const kFunction = "openssl_create_modern_ssl_ctx";
    if (openssl_lib_init() != 1)
        return nullptr;
    SSL_CTX* ctx = SSL_CTX_new(TLS_method());
    if (ctx == nullptr)
        return FailContext(kFunction, "SSL_CTX_new", nullptr);
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION) != 1)
        return FailContext(kFunction, "SSL_CTX_set_min_proto_version", ctx);
    if (options.certFile != nullptr) {
        const char* step = LoadCertificateAndKey(ctx, kFunction, options.certFile, options.keyFile,
                                                 options.keyPassword, false);
        if (step != nullptr)
            return FailContext(kFunction, step, ctx);
    }
    const bool verifyPeer = !options.server || options.requireClientCert;
    if (!verifyPeer)
        return ctx;
    if (!LoadTrust(ctx, options))
        return FailContext(kFunction, "SSL_CTX_load_verify_locations", ctx);
    SSL_CTX_set_verify(ctx, options.server ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_PEER,
                       nullptr);
    if (!options.server && options.peerHost != nullptr && !SetPeerHost(ctx, options.peerHost))
        return FailContext(kFunction, "X509_VERIFY_PARAM_set1_host", ctx);
    return ctx;
}

void openssl_free_ssl_ctx(ssl_ctx_st* ctx)
{
    SSL_CTX_free(ctx);
}

}  // namespace orvo
