// Fuzz target: the x y z text reader. The first byte picks how the columns
// are chosen; the rest is the file.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "io/KaIoError.h"
#include "io/KaPointReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0) return 0;
    static const KaPointColumns kChoices[] = {
        {}, {"x", "y", "z"}, {"3", "1", "2"}, {"1", "2", "100000"}, {"Easting", "2", "depth"}, {"1", "1", "1"}};
    const KaPointColumns& columns = kChoices[data[0] % std::size(kChoices)];
    std::istringstream in(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    try {
        for (const Ka3DPoint& p : ReadTextPointStream(in, "fuzz.txt", columns))
            if (!(p.x == p.x && p.y == p.y && p.z == p.z)) __builtin_trap();  // only finite numbers pass
    } catch (const KaIoError&) {
    }
    return 0;
}
