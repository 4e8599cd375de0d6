#include "otf_lookup.h"

#include <any>

#include "host/zr_types.h"

namespace zrvolume {

OtfTable ReadOtfTable(zrobjects::ZrObject& owner) {
    bool found = false;
    const std::any& value = owner.GetObjParamA("_TableMap_OTF", found);
    // An absent table reads as an empty value, which fails the cast like a
    // mistyped one: the driver must not call a kernel without a table.
    const auto& table = std::any_cast<const zrobjects::MapTable&>(value);
    OtfTable otf;
    otf.rows = table.pp_data;
    otf.rowCount = table.array_lengths.y;
    otf.length = static_cast<float>(table.array_lengths.x);
    return otf;
}

bool& ChannelOrderSwitch(ChannelOrderFamily family) {
    static bool switches[static_cast<int>(ChannelOrderFamily::Count)] = {};
    return switches[static_cast<int>(family)];
}

}  // namespace zrvolume
