#include "filedigest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <new>

namespace Kelda {

struct FileDigest::Context
{
    Context()
        : evp(EVP_MD_CTX_new())
    {
        if (!evp)
            throw std::bad_alloc();
        EVP_DigestInit_ex(evp, EVP_sha256(), nullptr);
    }
    ~Context() { EVP_MD_CTX_free(evp); }

    EVP_MD_CTX *evp;
};

FileDigest::FileDigest()
    : m_context(std::make_unique<Context>())
{ }

FileDigest::~FileDigest() = default;

void FileDigest::add(const char *data, size_t size)
{
    EVP_DigestUpdate(m_context->evp, data, size);
}

QByteArray FileDigest::finish()
{
    QByteArray digest(EVP_MAX_MD_SIZE, '\0');
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_context->evp, reinterpret_cast<unsigned char *>(digest.data()), &length);
    digest.resize(int(length));
    EVP_DigestInit_ex(m_context->evp, EVP_sha256(), nullptr);
    return digest;
}

void FileDigest::releaseThreadState()
{
    OPENSSL_thread_stop();
}

} // namespace Kelda
