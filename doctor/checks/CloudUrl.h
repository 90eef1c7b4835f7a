// Judges the API prefix of the cloud, network.veyraServer. A pure function, usable from any thread.
#pragma once

#include "Finding.h"

// Appends one finding to `found` for each fault of `url`. `url` must not be empty.
void judgeCloudUrl(const std::string& url, Findings& found);
