// Input: the text of a modalias.

#include "Machine.h"
#include "ModaliasReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const ModaliasIds ids = corvane::fuzz::manager().parseModalias(text);
    const ModaliasIds expected = corvane::fuzz::readModalias(text);
    corvane::fuzz::require(ids.vendorId == expected.vendorId &&
                               ids.productId == expected.productId &&
                               ids.versionId == expected.versionId,
                           "the ids are those of the format");
    return 0;
}
