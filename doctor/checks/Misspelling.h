// Tells a misspelt key from the key of another program. A pure function, usable from any thread.
#pragma once

#include <string>

// Whether `given` can only be a misspelling of `known`. A name that extends the other name, such as
// "hosts" for "host", is not a misspelling: it belongs to another program.
bool isMisspelt(const std::string& given, const std::string& known);
