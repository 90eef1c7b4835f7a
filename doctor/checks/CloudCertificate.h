// Why the certificate of the cloud was refused. Usable from any thread.
#pragma once

#include "Finding.h"
#include "host/HttpProbe.h"

struct Refusal {
    const std::string& url;
    const HttpAnswer& answer;
    const std::vector<Certificate>& chain;   // what the server sends, its own certificate first
    const std::vector<Certificate>& trusted; // what the CA file holds
};

// `chain` is not empty.
Finding judgeCertificate(const Refusal& refusal);
