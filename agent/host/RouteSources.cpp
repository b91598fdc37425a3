#include "agent/host/RouteSources.h"

#include "agent/host/LumenSource.h"
#include "agent/host/QuillSource.h"

namespace Agent {

std::span<const RouteSourceRow> routeSources() {
    static const RouteSourceRow table[] = {
        {.name = "quill", .toggle = false, .make = &makeQuillSource, .shapes = quillShapes()},
        {.name = "lumen", .toggle = true, .make = &makeLumenSource, .shapes = lumenShapes()},
    };
    return table;
}

} // namespace Agent
