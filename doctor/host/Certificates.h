// Names in X.509 certificates. Usable from any thread.
#pragma once

#include <string>
#include <vector>

// A name looks like "O = Example, CN = Example CA". The issuer of the certificate chose it.
struct Certificate {
    std::string subject, issuer;
    std::string hosts; // for which it is valid, such as "a.example, b.example"
    bool isExpired;
    unsigned long issuerHash; // in hexadecimal, the issuer's file name in a CA directory
};

// The certificates in a PEM text, in their order; other text is skipped.
std::vector<Certificate> certificatesIn(const std::string& pem);

// Whether the system's directory of CA certificates has the issuer of this one.
bool isIssuerKnown(const Certificate& certificate);
