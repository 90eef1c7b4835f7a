// Why the certificate of the cloud was rejected. Usable from any thread.
#pragma once

#include "Finding.h"
#include "host/HttpProbe.h"

struct Refusal {
    const std::string& url;
    const HttpAnswer& answer;
    const std::vector<Certificate>& chain;   // sent by the server, its own certificate first
    const std::vector<Certificate>& trusted; // from the CA file
};

// `chain` is not empty.
Finding judgeCertificate(const Refusal& refusal);
