"""Another client of the datastore, and a third subscriber. Every line of its input is a transaction, as JSON:
[[[XPATH, VALUE or null to delete], ...], MODULE to refuse it by or null, whether before the daemon is told].
The answer is the datastore's result. The folder of the datastore's library comes as argument."""

import ctypes
import json
import sys
import time

RUNNING, EVENT_CHANGE, OPERATION_FAILED, BEFORE, BESIDE = 1, 1, 7, 1, 0
HANDLER = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p,
                           ctypes.c_int, ctypes.c_uint32, ctypes.c_void_p)
library = ctypes.CDLL(f"{sys.argv[1]}/libsysrepo.so.7")
writer, other, session, subscriber, subscription = (ctypes.c_void_p() for _ in range(5))
refused = None, None


def must(result):
    if result != 0:
        sys.exit(f"the datastore says {result}")


def handler(priority):
    @HANDLER
    def on_change(_session, _id, module, _path, event, _request, _data):
        if event != EVENT_CHANGE or refused != (module.decode(), priority):
            return 0
        time.sleep(0.05)  # those beside act meanwhile
        return OPERATION_FAILED
    return on_change


handlers = {priority: handler(priority) for priority in (BEFORE, BESIDE)}
for connection, opened in ((writer, session), (other, subscriber)):
    must(library.sr_connect(0, ctypes.byref(connection)))
    must(library.sr_session_start(connection, RUNNING, ctypes.byref(opened)))
for name, path in ((b"olt-lacp", None), (b"olt-ifm", b"/olt-ifm:up-link-ports/interface/olt-lacp:trunk//.")):
    for order, function in handlers.items():
        must(library.sr_module_change_subscribe(subscriber, name, path, function, None, order, 0,
                                                ctypes.byref(subscription)))
print("ready", flush=True)
for line in sys.stdin:
    edits, by, before = json.loads(line)
    refused = by, BEFORE if before else BESIDE
    result = 0
    for path, value in edits:
        result = result or (library.sr_delete_item(session, path.encode(), 0) if value is None else
                            library.sr_set_item_str(session, path.encode(), value.encode() or None, None, 0))
    result = result or library.sr_apply_changes(session, 20000)
    refused = None, None
    library.sr_discard_changes(session)
    print(result, flush=True)
for connection in (other, writer):
    library.sr_disconnect(connection)
