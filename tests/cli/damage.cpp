// Damages files in memory, over and over, and has each read by verify and inspect: whatever they
// say of it, they come back. Prints how many damaged files were found sound.
//
//   damage random SEED COUNT FILE...   bytes overwritten, flipped, cut out, put in; files cut
//   damage types FILE...               each box in turn with a type that is none
//   damage sizes FILE...               each box in turn a little larger and a little smaller
//
// The last two print the boxes whose damage is not noticed, one a line, and exit with 1 for any.
#include "box_tree.h"
#include "inspect.h"
#include "verify.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Load(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Whether verify is content.
bool Sound(const Bytes& bytes)
{
    MemorySource source(bytes);
    Findings findings;
    if (!Judge(source, false, findings))
        return false;
    return findings.Count(Severity::error) + findings.Count(Severity::warning) == 0;
}

// One damage of some kind at some place.
void Hurt(Bytes& bytes, std::mt19937_64& random)
{
    const auto below = [&](std::size_t limit) {
        return static_cast<std::size_t>(random() % std::max<std::size_t>(limit, 1));
    };
    if (bytes.size() < 16)
        return;
    // Most damage goes where the boxes are, at one end of the file or the other.
    const std::size_t span = std::min<std::size_t>(bytes.size(), 6000);
    const std::size_t where[] = {below(span), bytes.size() - 1 - below(span), below(bytes.size())};
    const std::size_t at = std::min(where[below(3)], bytes.size() - 9);
    const auto place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    switch (below(7)) {
    case 0: bytes[at] = static_cast<std::uint8_t>(random()); break;
    case 1: bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ 1u << below(8)); break;
    case 2: std::fill(place, place + 4, static_cast<std::uint8_t>(below(2) ? 0xFF : 0)); break;
    case 3: bytes[at + 3] = static_cast<std::uint8_t>(bytes[at + 3] + 1 + below(4)); break;
    case 4: bytes.erase(place, place + 1 + static_cast<std::ptrdiff_t>(below(8))); break;
    case 5: bytes.insert(place, 1 + below(8), static_cast<std::uint8_t>(random())); break;
    default: bytes.resize(at); break;
    }
}

int Random(unsigned long long seed, unsigned long count, char** files, int fileCount)
{
    std::mt19937_64 random(seed);
    unsigned long sound = 0;
    std::size_t shown = 0;
    for (int i = 0; i < fileCount; ++i) {
        const Bytes whole = Load(files[i]);
        for (unsigned long n = 0; n < count; ++n) {
            Bytes bytes = whole;
            for (auto times = 1 + random() % 4; times > 0; --times)
                Hurt(bytes, random);
            sound += Sound(bytes) ? 1u : 0u;
            MemorySource source(std::move(bytes));
            shown += InspectText(source, files[i], n % 2 == 0).size();
        }
    }
    std::printf("%lu of %lu found sound\n", sound, count * static_cast<unsigned long>(fileCount));
    return shown > 0 ? 0 : 1;
}

void Each(const Box& box, const std::function<void(const Box&)>& visit)
{
    for (const Box& child : box.children) {
        visit(child);
        Each(child, visit);
    }
}

int Boxes(const char* file, const std::function<void(Bytes&, const Box&)>& change)
{
    const Bytes whole = Load(file);
    MemorySource source(whole);
    Findings findings;
    const Box tree = ReadTree(source, findings);
    int missed = Sound(whole) ? 0 : 1;
    if (missed != 0)
        std::printf("%s is not sound\n", file);
    Each(tree, [&](const Box& box) {
        Bytes bytes = whole;
        change(bytes, box);
        if (Sound(bytes)) {
            std::printf("%s: %s\n", file, box.path.c_str());
            ++missed;
        }
    });
    return missed;
}

}  // namespace

int main(int count, char** arguments)
{
    const std::string mode = count > 1 ? arguments[1] : "";
    if (mode == "random" && count > 4)
        return Random(std::strtoull(arguments[2], nullptr, 10),
                      std::strtoul(arguments[3], nullptr, 10), arguments + 4, count - 4);
    if ((mode != "types" && mode != "sizes") || count < 3) {
        std::fprintf(stderr, "usage: damage random SEED COUNT FILE... | types|sizes FILE...\n");
        return 2;
    }
    int missed = 0;
    for (int i = 2; i < count; ++i)
        if (mode == "types") {
            missed += Boxes(arguments[i], [](Bytes& bytes, const Box& box) {
                bytes[static_cast<std::size_t>(box.offset) + 5] ^= 0x15;
                bytes[static_cast<std::size_t>(box.offset) + 6] = '#';
            });
        } else {
            for (const int by : {-1, 1, 8})
                missed += Boxes(arguments[i], [by](Bytes& bytes, const Box& box) {
                    const std::size_t low = static_cast<std::size_t>(box.offset) + 3;
                    bytes[low] = static_cast<std::uint8_t>(bytes[low] + by);
                });
        }
    return missed == 0 ? 0 : 1;
}
