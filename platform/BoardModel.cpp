#include "BoardModel.h"

std::string BoardModel::getName() const {
    switch (m_type) {
        case KESTREL:
            return "KESTREL";
        case WREN:
            return "WREN";
        case FINCH:
            return "FINCH";
        case EGRET:
            return "EGRET";
        case HERON:
            return "HERON";
        default:
            return "Undefined";
    }
}
