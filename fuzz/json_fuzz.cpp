// Whatever is read as JSON is written as JSON that reads back as the same tree, and twice written is the same
// text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "VL_PList.h"

using Velmora::PListItem;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Mirel::Result_t why;
    const auto first = PListItem::CreateFromJSON(text, &why, PListItem::AnyDepth);
    if (!first) {
        if (why.Success()) std::abort();
        return 0;
    }
    std::string written;
    std::string again;
    if (first->EncodeJSON(written).Failure()) std::abort();
    const auto second = PListItem::CreateFromJSON(written, &why, PListItem::AnyDepth);
    if (!second || !(*first == *second)) std::abort();
    if (second->EncodeJSON(again).Failure() || again != written) std::abort();
    if (first->CreateXMLElement() != second->CreateXMLElement()) std::abort();
    return 0;
}
