#include "host/Certificates.h"

#include "host/Files.h"
#include "host/Text.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace {

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;
using X509Pointer = std::unique_ptr<X509, decltype(&X509_free)>;

std::string nameText(const X509_NAME* name) {
    const Bio output(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(output.get(), name, 0,
                       XN_FLAG_ONELINE & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
    char* text = nullptr;
    const long length = BIO_get_mem_data(output.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

std::string hostsOf(const X509* x509) {
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(x509, NID_subject_alt_name, nullptr, nullptr)),
        GENERAL_NAMES_free);
    std::string hosts;
    for (int index = 0; index < sk_GENERAL_NAME_num(names.get()); ++index) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), index);
        if (name->type == GEN_DNS) {
            const auto* const text = ASN1_STRING_get0_data(name->d.dNSName);
            const auto length = static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName));
            addItem(hosts, std::string(text, text + length));
        }
    }
    return hosts;
}

} // namespace

std::vector<Certificate> certificatesIn(const std::string& pem) {
    const Bio input(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    std::vector<Certificate> certificates;
    for (;;) {
        const X509Pointer x509(PEM_read_bio_X509_AUX(input.get(), nullptr, nullptr, nullptr),
                               X509_free);
        if (x509 == nullptr) {
            return certificates;
        }
        certificates.push_back({nameText(X509_get_subject_name(x509.get())),
                                nameText(X509_get_issuer_name(x509.get())), hostsOf(x509.get()),
                                X509_cmp_current_time(X509_get0_notAfter(x509.get())) < 0,
                                X509_issuer_name_hash(x509.get())});
    }
}

bool isIssuerKnown(const Certificate& certificate) {
    char file[64];
    std::snprintf(file, sizeof file, "/etc/ssl/certs/%08lx.0", certificate.issuerHash);
    std::string pem;
    readText(file, pem);
    const std::vector<Certificate> known = certificatesIn(pem);
    return std::any_of(known.begin(), known.end(), [&](const Certificate& candidate) {
        return candidate.subject == certificate.issuer;
    });
}
