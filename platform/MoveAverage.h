#pragma once

#include <cstddef>
#include <vector>

// Moving mean of the last `size` samples; minSizeReached() once it holds at least `minSize`.
class MoveAverage {
  public:
    MoveAverage(size_t size, size_t minSize);
    void addSample(float sample);
    double getAverage() const;
    bool minSizeReached() const { return m_count >= m_min_size; }
    void reset();

  private:
    std::vector<float> m_samples;
    size_t m_min_size;
    size_t m_next = 0;
    size_t m_count = 0;
};
