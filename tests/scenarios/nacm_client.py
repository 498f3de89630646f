"""Writes one leaf of the running datastore as a management client whose user the access rules know.

    nacm_client.py LIBRARY USER XPATH VALUE      prints the datastore's result code, 0 when the write was taken
"""

import ctypes
import sys

RUNNING = 1


def main(library, user, xpath, value):
    sysrepo = ctypes.CDLL(library)
    connection, session, rules = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_void_p()
    for step in (lambda: sysrepo.sr_connect(0, ctypes.byref(connection)),
                 lambda: sysrepo.sr_session_start(connection, RUNNING, ctypes.byref(session)),
                 lambda: sysrepo.sr_nacm_init(session, 0, ctypes.byref(rules)),
                 lambda: sysrepo.sr_nacm_set_user(session, user.encode())):
        if step() != 0:
            sys.exit("the datastore takes no session with access rules")
    result = sysrepo.sr_set_item_str(session, xpath.encode(), value.encode(), None, 0)
    print(result or sysrepo.sr_apply_changes(session, 0))
    sysrepo.sr_unsubscribe(rules)
    sysrepo.sr_nacm_destroy()
    sysrepo.sr_disconnect(connection)


if __name__ == "__main__":
    main(*sys.argv[1:])
