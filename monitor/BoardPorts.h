#pragma once

#include <string>
#include <vector>

// The PTP interfaces a board has besides its first one, by board model value and redundancy.
// The status reads one more port (numbered from 2) per entry.
std::vector<std::string> furtherPtpInterfaces(int boardModel, bool redundancy);
