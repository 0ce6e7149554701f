#include "MoveAverage.h"

#include <algorithm>

MoveAverage::MoveAverage(size_t size, size_t minSize)
    : m_samples(std::max<size_t>(size, 1), 0.0f), m_min_size(minSize) {}

void MoveAverage::addSample(float sample) {
    m_samples[m_next] = sample;
    m_next = (m_next + 1) % m_samples.size();
    m_count = std::min(m_count + 1, m_samples.size());
}

double MoveAverage::getAverage() const {
    if (m_count == 0) {
        return 0.0;
    }
    // The m_count newest samples are the ones before m_next, ring-wise; when the ring is not
    // full they are exactly indices 0..m_count-1.
    double sum = 0.0;
    for (size_t i = 0; i < m_count; ++i) {
        sum += m_samples[i];
    }
    return sum / static_cast<double>(m_count);
}

void MoveAverage::reset() {
    std::fill(m_samples.begin(), m_samples.end(), 0.0f);
    m_next = 0;
    m_count = 0;
}
