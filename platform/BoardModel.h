#pragma once

#include <string>

enum BoardModelType : int {
    BOARD_MODEL_UNDEFINED = 0,
    KESTREL = 3,
    WREN = 4,
    FINCH = 5,
    EGRET = 8,
    HERON = 9,
};

// The device's board model as the system defaults give it.
class BoardModel {
  public:
    explicit BoardModel(int type = BOARD_MODEL_UNDEFINED) : m_type(type) {}
    BoardModelType getType() const { return static_cast<BoardModelType>(m_type); }
    int getValue() const { return m_type; }
    // "KESTREL", "WREN", "FINCH", "EGRET", "HERON"; "Undefined" for any other value.
    std::string getName() const;

  private:
    int m_type;
};
