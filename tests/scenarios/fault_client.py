"""Another client of the datastore. Until its input ends it
    lock             holds the locks of the running configuration
    refuse COUNT     refuses the next COUNT changes of member-port lists
    stall SECONDS    takes that long to accept a change of a member-port list
or it writes a leaf as a user whom the access rules know: write USER XPATH VALUE prints the result, 0 when taken.
The folder of the datastore's library comes first."""

import ctypes
import sys
import time

RUNNING, LOCK_MS, EVENT_CHANGE, OPERATION_FAILED = 1, 5000, 1, 7
MEMBERS = b"/olt-lacp:channel-group/group/member-port"
HANDLER = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p,
                           ctypes.c_int, ctypes.c_uint32, ctypes.c_void_p)
folder, order, *arguments = sys.argv[1:]
library = ctypes.CDLL(f"{folder}/libsysrepo.so.7")
connection, session, subscription, rules = (ctypes.c_void_p() for _ in range(4))


def must(result):
    if result != 0:
        sys.exit(f"{order}: {result}")


@HANDLER
def on_members(_session, _id, _module, _path, event, _request, _data):
    if event != EVENT_CHANGE:
        return 0
    if order == "stall":
        time.sleep(int(arguments[0]))
    elif int(arguments[0]) > 0:
        arguments[0] = int(arguments[0]) - 1
        return OPERATION_FAILED
    return 0


must(library.sr_connect(0, ctypes.byref(connection)))
must(library.sr_session_start(connection, RUNNING, ctypes.byref(session)))
if order == "write":
    user, path, value = (argument.encode() for argument in arguments)
    must(library.sr_nacm_init(session, 0, ctypes.byref(rules)))
    must(library.sr_nacm_set_user(session, user))
    print(library.sr_set_item_str(session, path, value, None, 0) or library.sr_apply_changes(session, 0))
    library.sr_unsubscribe(rules)
    library.sr_nacm_destroy()
else:
    if order == "lock":
        for module in (b"olt-lacp", b"olt-ifm"):
            must(library.sr_lock(session, module, LOCK_MS))
    else:
        must(library.sr_module_change_subscribe(session, b"olt-lacp", MEMBERS, on_members, None, 0, 0,
                                                ctypes.byref(subscription)))
    print("ready", flush=True)
    sys.stdin.read()
library.sr_disconnect(connection)
