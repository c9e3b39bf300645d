// orvo_aes_kernel.h - the kernel cipher behind cAES: an AF_ALG transform bound
// to one algorithm (by name or driver name) and keyed, running one request
// per call.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "orvo_aes.h"

namespace orvo {

struct cAES::sKernel {
    int m_Tfm = -1;  // bound transform socket
    int m_Op = -1;   // accepted operation socket
    bool m_Aead = false;

    ~sKernel();
    // Binds the algorithm (e.g. "gcm(aes)" or a driver name) and sets the
    // key; nullptr with the reason in error on failure.
    static sKernel* Open(eAesMode mode, const std::string& alg, const unsigned char* key,
                         size_t keyLen, std::string& error);
    // One request: len input bytes (AAD first for GCM) to outLen output bytes.
    // Returns the bytes read or -errno (-EBADMSG: GCM tag mismatch).
    ssize_t Run(bool encrypt, const unsigned char* iv, size_t ivLen, size_t assocLen,
                const unsigned char* in, size_t len, unsigned char* out, size_t outLen);
};

// The kernel algorithm name of the mode: "ecb(aes)", "cbc(aes)", "gcm(aes)".
const char* KernelAlgName(eAesMode mode);

}  // namespace orvo
