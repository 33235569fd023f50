// A real image in memory that a test can damage, field by field.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "host/image/kernel_image.h"

namespace netsieve::host {

struct TestImage {
    std::vector<std::uint8_t> bytes;

    TestImage() {
        auto file = ReadImageFile(NETSIEVE_TOY_IMAGE);
        if (!file) {
            throw std::runtime_error(file.fault().message + " (build it with: make image)");
        }
        bytes = std::move(file.value());
    }

    template <class T>
    T Get(std::size_t offset) const {
        T value;
        std::memcpy(&value, &bytes.at(offset), sizeof(value));
        return value;
    }
    template <class T>
    void Set(std::size_t offset, T value) {
        std::memcpy(&bytes.at(offset), &value, sizeof(value));
    }

    std::size_t Pe() const { return Get<std::uint32_t>(0x3C); }
    std::size_t Optional() const { return Pe() + 24; }
    std::size_t Directory(PeDirectory directory) const {
        return Optional() + 112 + 8 * static_cast<std::size_t>(directory);
    }
    // The header of the nth section.
    std::size_t Section(std::size_t index) const {
        return Optional() + Get<std::uint16_t>(Pe() + 20) + 40 * index;
    }
    // Where the contents of a directory lie in the file.
    std::size_t Contents(PeDirectory directory) const {
        return FileOffset(Get<std::uint32_t>(Directory(directory)));
    }
    std::size_t FileOffset(std::uint32_t address) const {
        std::size_t section = Section(0);
        while (address - Get<std::uint32_t>(section + 12) >= Get<std::uint32_t>(section + 8)) {
            section += 40;
        }
        return address - Get<std::uint32_t>(section + 12) + Get<std::uint32_t>(section + 20);
    }
    // The offset of the only occurrence of `text`, which must be there.
    std::size_t Find(std::string_view text) const {
        auto found = std::search(bytes.begin(), bytes.end(), text.begin(), text.end());
        EXPECT_NE(found, bytes.end()) << text;
        return static_cast<std::size_t>(found - bytes.begin());
    }
    // Overwrites the only occurrence of `text` by `replacement` and zeroes up to its end.
    void Replace(std::string_view text, std::string_view replacement) {
        auto* const found = &bytes.at(Find(text));
        std::fill_n(found, text.size(), 0);
        std::copy(replacement.begin(), replacement.end(), found);
    }
    void FixChecksum() { Set(Optional() + 64, PeChecksum(bytes, Optional() + 64)); }

    // Flips bits, most often where the headers and tables of the undamaged `whole` are.
    void FlipBits(const TestImage& whole, std::mt19937_64& random, std::size_t count) {
        static constexpr PeDirectory kTables[] = {PeDirectory::kExports, PeDirectory::kImports,
                                                  PeDirectory::kUnwind, PeDirectory::kRelocations};
        for (; count != 0; --count) {
            std::size_t offset = random() % bytes.size();
            if (auto choice = random() % 8; choice < 4) {
                offset = whole.Contents(kTables[choice]) + random() % 96;
            } else if (choice < 7) {
                offset = random() % whole.Section(10);
            }
            bytes[offset] ^= static_cast<std::uint8_t>(1u << random() % 8);
        }
    }
};

}  // namespace netsieve::host
