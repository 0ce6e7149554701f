#pragma once

#include <string>

// A clock identity as this service shows it: eight lower-case hex bytes joined by "-".
std::string clockIdentityText(const unsigned char id[8]);
