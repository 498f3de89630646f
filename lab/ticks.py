"""How long the protocol may take, in its own ticks."""

TICK = 1.02       # one second of sleep and the way through the queue
SLACK = 4.0       # a loaded machine: processes, datastore, polling


class Ticks:
    """Upper bounds, in seconds."""

    # From a configured port to a trunk: LACP switched on (1 s), a first LACPDU (3 ticks from the enabled port:
    # periodic, scheduler, sent), the answer on the partner's next ticks (2), selection (2), wait_while (3), and
    # one more round for a partner that had already given up and starts again from its own aggregator.
    FORM = 1 + 2 * (3 + 2 + 2 + 3) * TICK + SLACK
    # The same with a passive side that hears an active one only at its next slow LACPDU, 31 ticks after the last.
    REFORM = 31 * TICK + FORM
    # A lost carrier needs no tick: link status, queue, detachment, member list, trunk.
    LINK = SLACK
    # A silent partner: the short timeout expires on the 4th tick, again on the 4th after that; then selection.
    LOST_SHORT = (2 * 4 + 2) * TICK + SLACK
    # Two LACPDUs apart with a partner that asks for the short timeout.
    FAST_PERIOD = 2 * TICK
    # Longer than anything that would form a trunk.
    NOT_FORMED = (3 + 2 + 2 + 3) * TICK

    @staticmethod
    def of(count):
        return count * TICK + SLACK
