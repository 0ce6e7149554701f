#include "BoardPorts.h"

std::vector<std::string> furtherPtpInterfaces(int boardModel, bool redundancy) {
    switch (boardModel) {
        case 3:
            return {"eth3"};
        case 0:
        case 1:
        case 6:
        case 7:
            return {"eth2"};
        case 4:
        case 5:
            // The redundant path is a VLAN of the first interface.
            return redundancy ? std::vector<std::string>{"eth0.20"} : std::vector<std::string>{};
        default:
            return boardModel >= 9 && boardModel <= 15 ? std::vector<std::string>{"eth2"}
                                                       : std::vector<std::string>{};
    }
}
