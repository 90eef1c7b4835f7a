// Judges the API prefix of the cloud, network.veyraServer. A pure function, usable from any thread.
#pragma once

#include "Finding.h"

// Appends what is wrong with the URL, which is not empty, to `found`.
void judgeCloudUrl(const std::string& url, Findings& found);
