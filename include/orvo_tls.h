// orvo_tls.h - OpenSSL contexts for the stream sockets (cTcpSocket::SetSSL):
// one-time library initialisation, the TLS 1.0 context the device's peers
// speak, a modern TLS 1.2/1.3 context for new connections, and the print of
// the peer certificate when a TLS connection is up.
//
// Which context to use:
//  - openssl_create_ssl_ctx: for peers that already talk to the device and
//    speak TLS 1.0 only (meters, head-end systems of that generation). It
//    lowers OpenSSL's security level to 0 for this one context, since a
//    default OpenSSL 3 refuses TLS 1.0, SHA-1 handshake signatures and
//    short keys; no other context of the process is affected. Peer
//    verification only against the given CA file/path; no host-name check.
//  - openssl_create_modern_ssl_ctx: for every new connection. TLS 1.2 and
//    1.3 only, OpenSSL's default security level, peer certificates always
//    verified on the client side (the given CA, else the system's trust
//    store) and, when a peer host is named, its name or address checked
//    against the certificate (and sent as SNI).
// Both give a plain SSL_CTX that any cTcpSocket (and the framed sockets)
// take; a context may be shared by many sockets and must outlive them. Free
// it with openssl_free_ssl_ctx.
//
// Output: these functions report on standard output with printf (not
// through the trace units): context creation failures, the verify
// callback's refusals and the peer certificate lines.
//
// Thread safety: create contexts before sockets use them; openssl_lib_init
// may be called from any thread (the first call initialises).
#pragma once

#include <string>

#include "orvo_init.h"

struct ssl_ctx_st;
struct ssl_st;

namespace orvo {

// Initialises OpenSSL once per process. 1 when ready, 0 when the random
// generator has no seed (prints "openssl_lib_init: RAND_status failed"; a
// later call tries again).
ORVO_API int openssl_lib_init();

// A TLS 1.0 context, or null (the reason printed as "openssl_create_ssl_ctx:
// <step> failed: <OpenSSL's reason>"). Every argument may be null:
//  cipherList  OpenSSL cipher string (SSL_CTX_set_cipher_list);
//  certFile    PEM certificate chain presented to the peer;
//  keyFile     PEM private key; null: the key is read from certFile (printed
//              as "openssl_create_ssl_ctx: using cert as key: <certFile>");
//  keyPassword password of an encrypted key;
//  caFile, caPath  trusted CAs; when either is given the peer must present
//              a certificate that verifies (verify depth 4; the verify
//              callback refuses any certificate at depth 4 or more, so
//              chains of a leaf and at most two intermediates pass).
ORVO_API ssl_ctx_st* openssl_create_ssl_ctx(const char* cipherList, const char* caFile,
                                            const char* caPath, const char* certFile,
                                            const char* keyFile, const char* keyPassword);

// Prints the connection's protocol, cipher and the peer certificate's
// subject, common name, issuer and key size (each missing piece as a
// "... failed" line). 1 when a cipher is in use, else 0.
ORVO_API int openssl_show_peer_certificate(ssl_st* ssl);

// Settings of a modern context. Unset (null) strings are left out.
struct sTlsOptions {
    bool server = false;                // context for accepting sockets
    const char* certFile = nullptr;     // PEM chain presented to the peer (a server needs one)
    const char* keyFile = nullptr;      // PEM private key; null: read from certFile
    const char* keyPassword = nullptr;  // password of an encrypted key
    const char* caFile = nullptr;       // trusted CAs; with caPath null on both: system store
    const char* caPath = nullptr;
    // Client: the name (or dotted address) the server certificate must
    // carry; also sent as SNI. Null: the chain is verified, the name is not.
    const char* peerHost = nullptr;
    // Server: ask for a client certificate and refuse a client without a
    // valid one (verified against caFile/caPath).
    bool requireClientCert = false;
};

// A TLS 1.2/1.3 context as described by options, or null (the failing step
// printed like openssl_create_ssl_ctx's, with "openssl_create_modern_ssl_ctx").
// Client contexts always verify the server's chain; a failed verification
// fails the handshake (0x4004 "ConnectSSL").
ORVO_API ssl_ctx_st* openssl_create_modern_ssl_ctx(const sTlsOptions& options);

// OpenSSL's reason text of the most recent error queued on this thread
// ("certificate verify failed", ...), or "" when none is queued. Empties the
// thread's error queue.
ORVO_API std::string openssl_error_reason();

// Frees a context made by either function (null is ignored). Sockets that
// still hold it must be closed first.
ORVO_API void openssl_free_ssl_ctx(ssl_ctx_st* ctx);

}  // namespace orvo
