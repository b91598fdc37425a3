#include "ctl/LineHelp.h"

namespace Ctl {

namespace {

const std::string request =
    "request mroute|mgroup intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any\n";

std::vector<LineHelp> makeCommands() {
    return {
        {.name = "vrf",
         .words = {"vrf"},
         .changes = true,
         .summary = "Give a VRF its identifier, switch multicast on or off in it",
         .forms = "  vrf NAME [id N] [multicast on|off]\n",
         .notes = "Before multicast goes on, both of the VRF's tables are seen to."},
        {.name = "route",
         .words = {"route"},
         .changes = true,
         .summary = "Put a multicast route into a VRF's table, or replace it",
         .forms = "  route VRF static|sparse SOURCE/LENGTH GROUP/LENGTH oifs INTF... [not-ready]\n"},
        {.name = "request",
         .words = {"request"},
         .changes = true,
         .summary = "Ask for a flow's interfaces (mroute) or hardware group (mgroup)",
         .forms = "  " + request,
         .notes = "The answer is kept current until the request is taken back; see show, watch and wait."},
        {.name = "group",
         .words = {"group"},
         .changes = true,
         .summary = "Say which group the hardware allocated for a flow",
         .forms = "  group VRF SOURCE GROUP vlan N id N\n"},
        {.name = "egress",
         .words = {"egress"},
         .changes = true,
         .summary = "Gather answers from all VRFs, or from the request's own",
         .forms = "  egress all on|off\n"},
        {.name = "no",
         .words = {"no"},
         .changes = true,
         .summary = "Take back what vrf, route, request or group made",
         .forms = "  no vrf NAME\n"
                  "  no route VRF static|sparse SOURCE/LENGTH GROUP/LENGTH\n"
                  "  no " +
                  request + "  no group VRF SOURCE GROUP vlan N\n"},
        {.name = "set",
         .words = {"set"},
         .changes = true,
         .summary = "Set a value, or a member of a collection",
         .forms = "  set PATH ATTRIBUTE VALUE\n"
                  "  set PATH ATTRIBUTE KEY [VALUE]\n",
         .notes = "KEY and VALUE are JSON; a word that is none is a string. schema tells what there is."},
        {.name = "del",
         .words = {"del"},
         .changes = true,
         .summary = "Remove a member of a collection",
         .forms = "  del PATH ATTRIBUTE KEY\n",
         .notes = "KEY is JSON; a word that is none is a string."},
        {.name = "show",
         .words = {"show"},
         .summary = "Show answers, requests, VRFs, routes or groups as a table",
         .forms = "  show mroute|mgroup|vrfs|routes|requests|groups|status\n"},
        {.name = "expect",
         .words = {"expect"},
         .summary = "Hold an answer, or the trace, against what it should be",
         .forms = answerForms("expect") + "  expect [no] trace TEXT\n",
         .notes = "Ends with status 1 and says both sides where they differ."},
        {.name = "mark",
         .words = {"mark"},
         .takesMore = false,
         .summary = "Have expect trace look at what is traced from now on",
         .forms = "  mark\n"},
    };
}

} // namespace

std::span<const LineHelp> lineCommands() {
    static const std::vector<LineHelp> commands = makeCommands();
    return commands;
}

std::string answerForms(const std::string& command) {
    const std::string flow = " intf INTF vrf VRF vlan N source ADDRESS|any group ADDRESS|any = ";
    return "  " + command + " mroute" + flow + "INTF...|none|absent\n  " + command + " mgroup" + flow +
           "ID|absent\n";
}

} // namespace Ctl
