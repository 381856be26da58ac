#include "package/signature.h"

#include <ctype.h>
#include <limits.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <span>

#include "base/hex.h"
#include "openssl_owned.h"
#include "purpose.h"

namespace {

constexpr int SECURITY_LEVEL = 2;  // 112 bits: RSA from 2048 bits on, no SHA-1
constexpr int DEPTH_MAX = 8;       // authorities between signer and root

PackageStatus refused(const std::string& reason) {
    return package_fault(PACKAGE_NOT_TRUSTED, reason);
}

PackageStatus short_of_memory() {
    return package_fault(PACKAGE_UNREADABLE, "cannot check the signature: " + openssl_reason());
}

// Not mktime() or timegm(): time_t ends in 2038 where it has 32 bits.
int64_t seconds_of(const ASN1_TIME* time) {
    using namespace std::chrono;
    tm parts = {};
    if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) {
        return 0;
    }
    const sys_days day = year(parts.tm_year + 1900) / (parts.tm_mon + 1) / parts.tm_mday;
    return static_cast<int64_t>(day.time_since_epoch().count()) * 86400 + parts.tm_hour * 3600 +
           parts.tm_min * 60 + parts.tm_sec;
}

std::string fingerprint_of(const X509* certificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest = {};
    unsigned size = 0;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &size) != 1) {
        return "";
    }
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        text += (i == 0 ? "" : ":") + corvo::hex_text(std::span(&digest[i], 1));
    }
    std::ranges::transform(text, text.begin(), toupper);
    return text;
}

int64_t signing_time(const CMS_SignerInfo* info) {
    const int at = CMS_signed_get_attr_by_NID(info, NID_pkcs9_signingTime, -1);
    const ASN1_TYPE* const value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(info, at), 0);
    if (value == nullptr ||
        (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME)) {
        return 0;
    }
    return seconds_of(value->value.asn1_string);
}

// A parsed signature.
struct ReadSignature {
    OwnedCms cms;
    OwnedCertificates certificates;
    CMS_SignerInfo* info = nullptr;  // owned by cms
    X509* certificate = nullptr;     // the signer's; owned by certificates
};

PackageStatus read_signature(std::string_view bytes, ReadSignature& signature) {
    ERR_clear_error();
    if (bytes.size() > SIGNATURE_SIZE_MAX) {
        return refused("the signature is longer than " + std::to_string(SIGNATURE_SIZE_MAX) +
                       " bytes");
    }
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* const end = at + bytes.size();
    signature.cms.reset(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(bytes.size())));
    if (!signature.cms || OBJ_obj2nid(CMS_get0_type(signature.cms.get())) != NID_pkcs7_signed) {
        return refused("the signature is not in CMS format: " + openssl_reason());
    }
    if (at != end) {
        return refused("the signature has " + std::to_string(end - at) + " bytes after its end");
    }
    if (CMS_is_detached(signature.cms.get()) != 1) {
        return refused("the signature is not a detached signature");
    }
    STACK_OF(CMS_SignerInfo)* const infos = CMS_get0_SignerInfos(signature.cms.get());
    if (sk_CMS_SignerInfo_num(infos) != 1) {
        return refused("the signature has " +
                       std::to_string(std::max(sk_CMS_SignerInfo_num(infos), 0)) +
                       " signers, expected 1");
    }
    signature.info = sk_CMS_SignerInfo_value(infos, 0);
    signature.certificates.reset(CMS_get1_certs(signature.cms.get()));
    for (int i = 0; i < sk_X509_num(signature.certificates.get()); ++i) {
        X509* const certificate = sk_X509_value(signature.certificates.get(), i);
        if (CMS_SignerInfo_cert_cmp(signature.info, certificate) == 0) {
            signature.certificate = certificate;
            return {};
        }
    }
    return refused("the signature does not contain its signer's certificate");
}

void describe(const ReadSignature& signature, Signer& signer) {
    const X509* const certificate = signature.certificate;
    signer = {.subject = name_text(X509_get_subject_name(certificate)),
              .issuer = name_text(X509_get_issuer_name(certificate)),
              .fingerprint = fingerprint_of(certificate),
              .validFrom = seconds_of(X509_get0_notBefore(certificate)),
              .validUntil = seconds_of(X509_get0_notAfter(certificate)),
              .signedAt = signing_time(signature.info)};
}

PackageStatus not_trusted(const X509* certificate, const char* reason) {
    return refused("the certificate \"" + name_text(X509_get_subject_name(certificate)) +
                   "\" is not trusted: " + reason);
}

// Returns whether this authority issued the list. Comparing names is not enough, since an authority
// may be renewed with the same name and a new key.
bool is_list_of(X509_CRL* list, X509* issuer) {
    if (X509_NAME_cmp(X509_CRL_get_issuer(list), X509_get_subject_name(issuer)) != 0) {
        return false;
    }
    const OwnedKeyIdentifier key(static_cast<AUTHORITY_KEYID*>(
        X509_CRL_get_ext_d2i(list, NID_authority_key_identifier, nullptr, nullptr)));
    return !key || X509_check_akid(issuer, key.get()) == X509_V_OK;
}

// Searches every list of the issuer for the certificate. OpenSSL's own check would use only one
// list, selected by its dates, and would fail if no list is valid now.
PackageStatus check_revocation(X509* certificate, X509* issuer, const Keyring& keyring) {
    const STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(keyring.store.get());
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        X509_CRL* const list = X509_OBJECT_get0_X509_CRL(sk_X509_OBJECT_value(objects, i));
        if (list == nullptr || !is_list_of(list, issuer)) {
            continue;
        }
        if (X509_CRL_verify(list, X509_get0_pubkey(issuer)) != 1) {
            ERR_clear_error();
            return not_trusted(
                certificate,
                "the revocation list of its issuer is not signed with the issuer's key");
        }
        X509_REVOKED* entry = nullptr;
        if (X509_CRL_get0_by_cert(list, &entry, certificate) == 1) {
            return not_trusted(certificate, X509_verify_cert_error_string(X509_V_ERR_CERT_REVOKED));
        }
    }
    return {};
}

PackageStatus check_chain(const ReadSignature& signature, const Keyring& keyring, int64_t time) {
    const OwnedStoreContext context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), keyring.store.get(), signature.certificate,
                                        signature.certificates.get()) != 1) {
        return short_of_memory();
    }
    X509_VERIFY_PARAM* const rules = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_auth_level(rules, SECURITY_LEVEL);
    X509_VERIFY_PARAM_set_depth(rules, DEPTH_MAX);
    X509_VERIFY_PARAM_set_time(rules, static_cast<time_t>(time));
    if (X509_verify_cert(context.get()) != 1) {
        const int error = X509_STORE_CTX_get_error(context.get());
        const X509* const current = X509_STORE_CTX_get_current_cert(context.get());
        ERR_clear_error();
        return not_trusted(current != nullptr ? current : signature.certificate,
                           X509_verify_cert_error_string(error));
    }
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
    const int last = sk_X509_num(chain) - 1;
    for (int i = 0; i <= last; ++i) {
        PackageStatus status = check_revocation(
            sk_X509_value(chain, i), sk_X509_value(chain, std::min(i + 1, last)), keyring);
        if (!status.ok()) {
            return status;
        }
    }
    // OpenSSL itself can check for code signing only since release 3.2.
    for (int i = 1; i < last; ++i) {
        X509* const authority = sk_X509_value(chain, i);
        if (!may_issue_signers(authority)) {
            return refused("the certificate \"" + name_text(X509_get_subject_name(authority)) +
                           "\" may not issue code signing certificates");
        }
    }
    return {};
}

// The signed attributes bind the signature to the content's type and digest. Without attributes the
// signature covers the content directly, so an attacker could present the encoded attributes of
// another signature as signed content.
PackageStatus check_attributes(CMS_ContentInfo* cms, const CMS_SignerInfo* info) {
    const auto* type = static_cast<const ASN1_OBJECT*>(
        CMS_signed_get0_data_by_OBJ(info, OBJ_nid2obj(NID_pkcs9_contentType), -3, V_ASN1_OBJECT));
    const void* const digest = CMS_signed_get0_data_by_OBJ(
        info, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING);
    if (type == nullptr || digest == nullptr) {
        return refused("the signature has no signed attributes with the content's type and digest");
    }
    if (OBJ_obj2nid(type) != NID_pkcs7_data ||
        OBJ_obj2nid(CMS_get0_eContentType(cms)) != NID_pkcs7_data) {
        return refused("the signature is for content of another type, expected data");
    }
    return {};
}

PackageStatus check_algorithm(CMS_SignerInfo* info) {
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, nullptr, &digest, nullptr);
    const ASN1_OBJECT* algorithm = nullptr;
    X509_ALGOR_get0(&algorithm, nullptr, nullptr, digest);
    const int found = OBJ_obj2nid(algorithm);
    return found == NID_sha256
               ? PackageStatus{}
               : refused(std::string("the signature's digest is ") +
                         (found == NID_undef ? "of an unknown type" : OBJ_nid2sn(found)) +
                         ", expected SHA256");
}

}  // namespace

PackageStatus verify_signature(std::string_view content, std::string_view signature,
                               const Keyring& keyring, int64_t now, Signer& signer) {
    ReadSignature read;
    signer = {};
    PackageStatus status = read_signature(signature, read);
    if (!status.ok()) {
        return status;
    }
    describe(read, signer);
    const bool clockIsSet = now >= CORVO_BUILD_TIME;
    if (!clockIsSet && signer.signedAt == 0) {
        return refused(
            "the clock has not been set, and the signature does not say when it was made");
    }
    const int64_t time = clockIsSet ? now : signer.signedAt;
    if (time < 0 || time > std::numeric_limits<time_t>::max()) {
        return refused("the signature was made at " + time_text(time) +
                       ", which is beyond this machine's time");
    }
    status = check_attributes(read.cms.get(), read.info);
    if (status.ok()) {
        status = check_algorithm(read.info);
    }
    if (status.ok()) {
        status = check_chain(read, keyring, time);
    }
    if (!status.ok()) {
        return status;
    }
    if (!may_sign_code(read.certificate)) {
        return refused("the certificate \"" + signer.subject + "\" is not for code signing");
    }
    if (!has_usable_key(read.certificate)) {
        return refused("the certificate \"" + signer.subject + "\" has a key of type " +
                       key_kind(read.certificate) + ", expected RSA or EC");
    }
    const OwnedBio bytes = view_of(content);
    // A memory BIO would be copied by CMS_verify(), and OpenSSL 3.0 loses the copy if the signature
    // names an unknown digest. It does not copy a filter.
    const OwnedBio filter(BIO_new(BIO_f_null()));
    if (!bytes || !filter) {
        return short_of_memory();
    }
    BIO_push(filter.get(), bytes.get());
    // Make CMS_verify() use the certificate that was checked above, and no other.
    CMS_SignerInfo_set1_signer_cert(read.info, read.certificate);
    if (CMS_verify(read.cms.get(), nullptr, nullptr, filter.get(), nullptr,
                   CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1) {
        return refused("the content is not what \"" + signer.subject +
                       "\" signed: " + openssl_reason());
    }
    return {};
}

PackageStatus read_signer(std::string_view signature, Signer& signer) {
    ReadSignature read;
    signer = {};
    PackageStatus status = read_signature(signature, read);
    if (status.ok()) {
        describe(read, signer);
    }
    return status;
}

std::string time_text(int64_t seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(seconds)};
    const sys_days day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    char text[48];
    snprintf(text, sizeof(text), "%04d-%02u-%02u %02d:%02d:%02d UTC", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
             static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
             static_cast<int>(clock.seconds().count()));
    return text;
}
