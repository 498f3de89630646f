"""The life of two systems: every step, in an order that users would take; after each both are as they are configured."""

import pytest

from lab import Ticks
from steps import Steps

# Selection (2), wait_while (3), a LACPDU (1), the other end's selection and answer.
ATTACH = Ticks.of(2 + 3 + 1 + 2 + 1)
LIFE = [  # seconds that the steps may take to show, steps
    (Ticks.LINK, "left join 1 1 active; left join 2 1 active; left timeout 1 short; left timeout 2 short"),
    (Ticks.FORM, "right join 1 1 passive; right join 2 1 passive; right timeout 1 short; right timeout 2 short"),
    (Ticks.LINK, "left join 3 2 on; right join 3 2 on; left join 4 2 on; left join 4 1 on; left join 3 1 on; "
                 "left spread 1 src-dst-ip; right spread 2 dst-mac; right spread 4 dst-ip"),
    (ATTACH, "left system_priority 4096; left priority 2 100"),
    (Ticks.LINK, "right link 2 down; left link 3 down; left leave 3; left join 3 2 on"),
    (Ticks.FORM, "right link 2 up; left link 3 up; left leave 4; left timeout 4 short; right timeout 4 short; "
                 "left join 4 3 passive; right join 4 3 passive; left wait 8"),
    (Ticks.FORM, "left cross 1 2; left edit_mode 4 active"),
    (Ticks.FORM, "left move 2 3; right edit_port 2 short 7"),
    (Ticks.FORM, "left move 2 1; right switch_off; right switch_on"),
    (Ticks.FORM, "left switch_off; left leave 3; left join 3 3 on; left join 3 4 on; left leave 2; left join 2 2 on; "
                 "left link 4 down; left switch_on"),
    (Ticks.FORM, "left leave 2; left join 2 1 active; left leave 3; left join 3 2 on; left link 4 up; "
                 "left daemon SIGTERM"),
    (Ticks.FORM, "right stop 12"),
    (Ticks.FORM, "right daemon SIGKILL"),
    (Ticks.FORM, "left join 1 4 active; right join 2 4 active; right join 3 1 active"),
    (Ticks.FORM, "left join 2 2 active; left join 2 4 on; left leave 3; left join 3 2 active; right join 4 2 on"),
    (Ticks.LOST_SHORT, "left leave 1; left leave 2; left leave 3; left leave 4; left system_priority 32768"),
    (Ticks.LINK, "left join 1 1 on; left join 2 1 on; right leave 1; right leave 2; right leave 3; right leave 4"),
]


@pytest.fixture(scope="module")
def steps(lab):
    return Steps(lab)


@pytest.mark.parametrize("within, lines", LIFE, ids=[lines for _, lines in LIFE])
def test_both_are_as_configured_after(steps, within, lines):
    for line in lines.split("; "):
        assert steps.take(line) is True, f"{line} does not fit"
    print(f"{lines}: {steps.agree(within):.1f} of {within:.1f} s")
