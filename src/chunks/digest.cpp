#include "digest.h"

#include <openssl/evp.h>

void ChunkHashDeleter::operator()(evp_md_ctx_st* hash) const {
    EVP_MD_CTX_free(hash);
}

OwnedChunkHash make_chunk_hash() {
    OwnedChunkHash hash(EVP_MD_CTX_new());
    if (hash && EVP_DigestInit_ex(hash.get(), EVP_sha256(), nullptr) != 1) {
        hash.reset();
    }
    return hash;
}

ChunkResult digest_bytes(const OwnedChunkHash& hash, std::span<const char> bytes,
                         std::array<unsigned char, CHUNKS_SHA256_SIZE>& sha256) {
    // Without a name of a digest OpenSSL keeps the one that it has found before, which is faster.
    const bool done = EVP_DigestInit_ex(hash.get(), nullptr, nullptr) == 1 &&
                      EVP_DigestUpdate(hash.get(), bytes.data(), bytes.size()) == 1 &&
                      EVP_DigestFinal_ex(hash.get(), sha256.data(), nullptr) == 1;
    return done ? CHUNKS_OK : CHUNKS_NO_MEMORY;
}
