"""What must be equal when all is quiet: answers told, stored, shown, asked for anew and computed here; what was written
and what is there; the kernel and the tables."""

import time

from measures import HONEST_ID
from model import FIRST_ID
from rpc import answers_of, key_of, value_of

SETTLE = 20  # seconds within which the kernel's mirror is quiet once the kernel is


def compare(connection, model, watcher, has_kernel, asks_again):
    """The differences, as texts. `watcher` is the pipe to the watcher; `asks_again` withdraws and posts all for real."""
    found = []

    def hold(what, is_there, should_be):
        if is_there != should_be:
            found.append(f"{what}: {told_apart(is_there, should_be)}")

    if has_kernel:
        settle(connection, found)
        result = connection.call("kernel", verify=True)
        if not result["complete"] or result["differenceCount"]:
            found.append(f"kernel verify: {str(result)[:500]}")

    stored = others(answers_of(connection))
    kept = watchers_copy(connection, watcher)
    if kept is None:
        found.append("the watcher is not told what there is within 10 s")
    else:
        hold("answers a watcher keeps, and those stored", others(kept), stored)
    mroute = {key: value for key, value in stored.items() if key[0] == "mroute"}

    ours = {key: value for key, value in mroute.items() if key[2] >= FIRST_ID}
    hold("answers, and those that follow from what was written", ours, model.expected())
    requests = {("mroute" if name == "mrouteReq" else "mgroup", *key_of("", key)[1:]): None
                for path, name in (("api/mroute/req", "mrouteReq"), ("api/mgroup/req", "mgroupReq"))
                for key in connection.members(path, name)}
    hold("requests, and those posted", others(requests), model.requests)
    routes = {(row["vrf"], row["type"], prefix(row["source"]), prefix(row["group"])): frozenset(row["oifs"])
              for row in connection.rows("routes") if row["vrf"] in model.vrfs}
    hold("routes, and those written", routes, {route: frozenset(oifs) for route, oifs in model.routes.items()})
    numbers = {row["vrf"]: row["id"] for row in connection.rows("vrfs")}
    shown = {("mroute", row["intf"], numbers.get(row["vrf"], row["vrf"]), row["vlan"], row["source"].replace("any", "0.0.0.0"),
              row["group"].replace("any", "0.0.0.0")): frozenset(row["oifs"]) for row in connection.rows("mroute") if row["oifs"]}
    hold("answers shown, and those stored", others({(*key[:2], int(key[2]), *key[3:]): value for key, value in shown.items()}),
         mroute)

    groups = {tuple(member["key"][field] for field in ("vrfId", "vlanId", "source", "group")): member["value"]["groupId"]
              for member in connection.members("l3/mroutegroup/status", "mgroups")}
    hold("hardware groups answered, and those of the hardware",
         {key: value for key, value in stored.items() if key[0] == "mgroup"},
         {request: groups[request[2:]] for request in model.requests if request[0] == "mgroup" and request[2:] in groups})

    result = connection.call("apply", lines=model.ask_again(), dryRun=True)
    hold("answers stored, and those of a dry run that asks for all again", mroute, mroute_answers(result))
    if asks_again:
        connection.call("apply", lines=model.ask_again())
        again = others(answers_of(connection))
        hold("answers stored, and those after asking for all again", mroute,
             {key: value for key, value in again.items() if key[0] == "mroute"})
    return found


def mroute_answers(result):
    """The answers that an apply tells and that are not empty."""
    told = {key_of(answer["attribute"], answer["key"]): value_of(answer["value"]) for answer in result["answers"]}
    return others({key: value for key, value in told.items() if key[0] == "mroute" and value})


def others(answers):
    """All but those of the honest client, which goes on meanwhile."""
    return {key: value for key, value in answers.items() if key[2] != HONEST_ID}


def prefix(text):
    return text.split("/")[0].replace("any", "0.0.0.0")


def told_apart(left, right):
    """The first few of what differs between two dicts, and how much does."""
    keys = [key for key in {**left, **right} if left.get(key, "none") != right.get(key, "none")]
    examples = [f"{key}: {left.get(key, 'none')}, {right.get(key, 'none')}" for key in keys[:3]]
    return f"{len(keys)} of {len(left)} and {len(right)} differ; " + "; ".join(examples)


def settle(connection, found):
    """Waits until the mirror has taken in what the kernel told."""
    end, before = time.monotonic() + SETTLE, None
    while time.monotonic() < end:
        kernel = connection.call("kernel")
        events = kernel["counters"]["events"], kernel["counters"]["resyncs"]
        if kernel["synced"] and events == before and not any(vrf["resyncWanted"] for vrf in kernel["vrfs"]):
            return
        before = events
        time.sleep(0.2)
    found.append(f"the mirror is not quiet {SETTLE} s after the kernel: {str(kernel)[:500]}")


def watchers_copy(connection, watcher):
    """What the watcher keeps once it was told all that there is now, or None if it isn't."""
    status = connection.call("status")
    wanted = status["instance"], status["counters"]["answerSeq"]
    watcher.send(wanted)
    end = time.monotonic() + 10
    while time.monotonic() < end:
        if watcher.poll(0.2):
            answer = watcher.recv()
            if answer[0] == wanted:
                return answer[1]
        connection.call("unwatch")  # fails when the agent has gone
    return None
