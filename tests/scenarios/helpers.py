"""What several scenarios do."""


def enter(port, *commands):
    """Lines that configure one port."""
    return [f"interface gigabitEthernet 0/{port}", *commands, "exit"]


def join(port, group, mode, *commands):
    return enter(port, f"channel-group {group} mode {mode}", *commands)


def leave(port, group):
    return enter(port, f"no channel-group {group}")


def quietly(system, *commands):
    """Configures; the shell must have nothing to say."""
    answer = system.configure(*commands)
    assert answer.strip() == "", f"{system.name} answered {answer!r} to {commands}"
