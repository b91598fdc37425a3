#include "text/Verbs.h"

#include <algorithm>

namespace Text {

namespace {

constexpr VerbHelp table[] = {
    {.name = "vrf",
     .changes = true,
     .summary = "Give a VRF its identifier, switch multicast on or off in it",
     .forms = "  vrf NAME [id N] [multicast on|off]\n",
     .notes = "Before multicast goes on, both of the VRF's tables are seen to."},
    {.name = "route",
     .changes = true,
     .summary = "Put a multicast route into a VRF's table, or replace it",
     .forms = "  route VRF static|sparse SOURCE/LENGTH GROUP/LENGTH oifs INTF...|none [not-ready]\n"},
    {.name = "request",
     .changes = true,
     .summary = "Ask for a flow's interfaces (mroute) or hardware group (mgroup)",
     .forms = "  request mroute|mgroup intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any\n",
     .notes = "The answer is kept current until the request is taken back; see show, watch and wait."},
    {.name = "group",
     .changes = true,
     .summary = "Say which group the hardware allocated for a flow",
     .forms = "  group VRF SOURCE GROUP vlan N id N\n"},
    {.name = "egress",
     .changes = true,
     .summary = "Gather answers from all VRFs, or from the request's own",
     .forms = "  egress all on|off\n"},
    {.name = "no",
     .changes = true,
     .summary = "Take back what vrf, route, request or group made",
     .forms = "  no vrf NAME\n"
              "  no route VRF static|sparse SOURCE/LENGTH GROUP/LENGTH\n"
              "  no request mroute|mgroup intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any\n"
              "  no group VRF SOURCE GROUP vlan N\n"},
    {.name = "set",
     .changes = true,
     .summary = "Set a value, or a member of a collection",
     .forms = "  set PATH ATTRIBUTE VALUE\n"
              "  set PATH ATTRIBUTE KEY [VALUE]\n",
     .notes = "KEY and VALUE are JSON; a word that is none is a string. schema tells what there is."},
    {.name = "del",
     .changes = true,
     .summary = "Remove a member of a collection, or a route table",
     .forms = "  del PATH [ATTRIBUTE KEY]\n",
     .notes = "Without ATTRIBUTE, the route table or FIB at PATH, which no VRF uses any more.\n"
              "KEY is JSON; a word that is none is a string."},
    {.name = "get",
     .summary = "Read a value or a collection",
     .forms = "  get PATH [ATTRIBUTE [KEY] [limit N] [after KEY]]\n",
     .notes =
         "Without ATTRIBUTE, all of them; limit: a page, at most so many members, up to 1000; after: those "
         "behind\nthis one. kestrelctl without limit reads page after page.\n"
         "KEY is JSON; a word that is none is a string."},
    {.name = "show",
     .summary = "Show answers, requests, VRFs, routes or groups as a table",
     .forms = "  show mroute|mgroup|vrfs|routes|requests|groups [limit N] [after CURSOR]\n"
              "  show status\n",
     .notes =
         "A page has at most 512 rows; more: after CURSOR behind it names the next. kestrelctl without limit "
         "shows all."},
    {.name = "expect",
     .summary = "Hold an answer, or the trace, against what it should be",
     .forms = "  expect mroute intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any = "
              "INTF...|none|absent\n"
              "  expect mgroup intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any = ID|absent\n"
              "  expect [no] trace TEXT\n",
     .notes = "Fails and says both sides where they differ."},
    {.name = "mark", .summary = "Have expect trace look at what is traced from now on", .forms = "  mark\n"},
    {.name = "trace",
     .summary = "Show or set trace levels, or read the trace ring",
     .forms = "  trace [FACILITY LEVEL]\n"
              "  trace last N [after NUMBER]\n",
     .notes =
         "LEVEL is 0 (the least) to 9; last: the ring's last N records, of which a page has at most 512; "
         "after: the\nfirst N behind that one."},
    {.name = "schema",
     .summary = "Tell what can be read, set and called",
     .forms = "  schema [TYPE]\n",
     .notes = "One type; without TYPE, all."},
    {.name = "status",
     .summary = "Show how the agent fares: version, readiness, sizes, counters",
     .forms = "  status\n"},
    {.name = "kernel",
     .summary = "Show how the mirror of the kernel's routes fares",
     .forms = "  kernel [verify]\n",
     .notes = "verify compares what the kernel has now with the tables."},
};

} // namespace

std::span<const VerbHelp> verbs() {
    return table;
}

const VerbHelp* verb(std::string_view name) {
    const auto* found = std::find_if(std::begin(table), std::end(table),
                                     [name](const VerbHelp& each) { return each.name == name; });
    return found == std::end(table) ? nullptr : found;
}

} // namespace Text
