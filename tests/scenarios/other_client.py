"""Another client of the datastore, whose library's folder comes first. Until its input ends it
    lock             holds the locks of the running configuration
    stall SECONDS    takes that long to accept a change of a member-port list
    kill PID change|done NUMBER    ends that process when it has made so many changes of a module, or has them taken
    edit             makes a transaction of every line, JSON: [[[XPATH, VALUE or null to delete], ...], REFUSAL]; the answer is
                     the result. A third subscriber refuses it, or without edits what others write: [NUMBER of the change of
                     a module, MODULE or null for any, whether before the daemon is told, how many]
or it writes a leaf as a user whom the access rules know: write USER XPATH VALUE prints the result, 0 when taken."""

import ctypes
import json
import os
import signal
import sys
import time

RUNNING, LOCK_MS, EVENT_CHANGE, EVENT_DONE, OPERATION_FAILED, BEFORE, BESIDE = 1, 5000, 1, 2, 7, 1, 0
MEMBERS = b"/olt-lacp:channel-group/group/member-port"
LEAVES = ((b"olt-lacp", None), (b"olt-ifm", b"/olt-ifm:up-link-ports/interface/olt-lacp:trunk//."))
HANDLER = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p,
                           ctypes.c_int, ctypes.c_uint32, ctypes.c_void_p)
folder, order, *arguments = sys.argv[1:]
library = ctypes.CDLL(f"{folder}/libsysrepo.so.7")
subscription, rules, handlers, connections = ctypes.c_void_p(), ctypes.c_void_p(), [], []
refusal, seen = None, set()  # changes of a module since it was given


def must(result):
    if result != 0:
        sys.exit(f"{order}: {result}")


def session():
    connection, opened = ctypes.c_void_p(), ctypes.c_void_p()
    must(library.sr_connect(0, ctypes.byref(connection)))
    must(library.sr_session_start(connection, RUNNING, ctypes.byref(opened)))
    connections.insert(0, connection)
    return opened


def subscribe(opened, module, path, refuses, priority=BESIDE, on=EVENT_CHANGE):
    @HANDLER
    def told(_session, _id, name, _path, event, request, _data):
        return OPERATION_FAILED if event == on and refuses(name.decode(), request) else 0
    handlers.append(told)
    must(library.sr_module_change_subscribe(opened, module, path, told, None, priority, 0, ctypes.byref(subscription)))


def kill(*change):
    seen.add(change)
    if len(seen) == int(arguments[2]):
        os.kill(int(arguments[0]), signal.SIGKILL)


def write(own, user, path, value):
    must(library.sr_nacm_init(own, 0, ctypes.byref(rules)))
    must(library.sr_nacm_set_user(own, user))
    print(library.sr_set_item_str(own, path, value, None, 0) or library.sr_apply_changes(own, 0))
    library.sr_unsubscribe(rules)
    library.sr_nacm_destroy()


def third(priority):
    def refuses(module, request):
        if refusal is None or refusal[2] != (priority == BEFORE):
            return False
        seen.add((module, request))
        refused = 0 <= len(seen) - refusal[0] < refusal[3] and refusal[1] in (None, module)
        time.sleep(0.05 * refused)  # others act meanwhile
        return refused
    return refuses


def edit(own, edits, given):
    global refusal
    refusal, result = given, 0
    seen.clear()
    for path, value in edits:
        result = result or (library.sr_delete_item(own, path.encode(), 0) if value is None else
                            library.sr_set_item_str(own, path.encode(), value.encode() or None, None, 0))
    if edits:
        result = result or library.sr_apply_changes(own, 20000)
        refusal = None
    library.sr_discard_changes(own)
    return result


def main():
    own = session()
    if order == "write":
        return write(own, *(argument.encode() for argument in arguments))
    if order == "lock":
        for module, _ in LEAVES:
            must(library.sr_lock(own, module, LOCK_MS))
    elif order == "edit":
        beside = session()
        for module, path in LEAVES:
            for priority in (BEFORE, BESIDE):
                subscribe(beside, module, path, third(priority), priority)
    elif order == "kill":
        for module, path in LEAVES:
            subscribe(own, module, path, kill, BEFORE, EVENT_DONE if arguments[1] == "done" else EVENT_CHANGE)
    else:
        subscribe(own, b"olt-lacp", MEMBERS, lambda *_: time.sleep(int(arguments[0])))
    print("ready", flush=True)
    for line in sys.stdin:
        print(edit(own, *json.loads(line)), flush=True)


main()
for connection in connections:
    library.sr_disconnect(connection)
