#include "Records.h"

#include <numeric>
#include <random>

namespace {

constexpr std::size_t kPieceBytes = 100;
constexpr std::size_t kPieceCount = 10000;
constexpr std::uint32_t kSeed = 20240607;

} // namespace

Records::Records(std::uint32_t recordCount, std::size_t valueBytes) : count_(recordCount), valueBytes_(valueBytes) {
    std::mt19937 random(kSeed);
    pool_.reserve(kPieceCount * kPieceBytes + valueBytes + kPieceBytes);
    while (pool_.size() < kPieceCount * kPieceBytes + valueBytes) {
        std::string half(kPieceBytes / 2, '\0');
        for (char& byte : half)
            byte = static_cast<char>(random() & 0xff);
        pool_ += half + half;
    }
}

std::string_view Records::value(std::uint32_t record) const {
    const std::uint64_t piece = (record * 0x9E3779B97F4A7C15ull >> 32) % kPieceCount;
    return std::string_view(pool_).substr(piece * kPieceBytes, valueBytes_);
}

std::vector<std::uint32_t> Records::shuffled() const {
    std::vector<std::uint32_t> order(count_);
    std::iota(order.begin(), order.end(), 0u);
    std::mt19937 random(kSeed);
    // Not std::shuffle: what it gives is left to the library.
    for (std::uint32_t last = count_; last > 1; --last)
        std::swap(order[last - 1], order[random() % last]);
    return order;
}

Records::Key Records::digits_(std::uint64_t number) {
    Key key;
    for (std::size_t position = key.size(); position-- > 0; number /= 10)
        key[position] = static_cast<char>('0' + number % 10);
    return key;
}
