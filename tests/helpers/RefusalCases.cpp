#include "RefusalCases.h"

#include <gtest/gtest.h>

namespace qrvtest {

std::vector<RefusalCase> operator+(std::vector<RefusalCase> first, const std::vector<RefusalCase>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

void expectRefusals(const std::string& entryName, const EntryPoint& entry,
                    const std::vector<RefusalCase>& cases, const ImagePair& makePair)
{
    for (const auto& c : cases) {
        qrv_img::QRV_Image source;
        qrv_img::QRV_Image destination;
        makePair(source, destination);
        const auto buffer = destination.data;  // kept while the case may drop it
        const size_t bytes = destination.dataSize;
        c.spoil(source, destination);
        const int code = entry(c.dropSource ? nullptr : &source, c.dropDestination ? nullptr : &destination);
        EXPECT_EQ(code, c.code) << entryName << ": " << c.name;
        for (size_t i = 0; i < bytes; ++i) {
            ASSERT_EQ(buffer[i], kCanary) << entryName << ": " << c.name << " wrote byte " << i;
        }
    }
}

}  // namespace qrvtest
