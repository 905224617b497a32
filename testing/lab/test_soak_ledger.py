"""The soak's book-keeping: what it counts as right, wrong and missed."""

from soak.ledger import Ledger

KEY, OTHER = (4, "wan1"), (6, "wan1")


def counts(ledger):
    return len(ledger.right), len(ledger.wrong), len(ledger.missed)


def test_switches_that_were_due():
    ledger = Ledger()
    ledger.expect(KEY, "inactive", 10, 20)
    ledger.expect(KEY, "active", 30, 40)
    assert ledger.is_due() and ledger.is_due(KEY) and not ledger.is_due(OTHER)
    ledger.saw(KEY, "inactive", 15)
    ledger.saw(KEY, "active", 31)
    ledger.give_up(100)
    assert counts(ledger) == (2, 0, 0) and ledger.is_clean and not ledger.is_due()
    assert ledger.right[0] == (KEY, "inactive", 15, 5)


def test_switches_that_nobody_asked_for():
    ledger = Ledger()
    ledger.saw(KEY, "inactive", 5)  # none is due
    ledger.expect(KEY, "inactive", 10, 20)
    ledger.saw(OTHER, "inactive", 15)  # another family's
    ledger.saw(KEY, "active", 15)  # the other way
    ledger.saw(KEY, "inactive", 9)  # before the fault
    assert counts(ledger) == (0, 4, 0) and ledger.is_due(KEY) and not ledger.is_clean


def test_one_switch_serves_once():
    ledger = Ledger()
    ledger.expect(KEY, "inactive", 10, 20)
    ledger.saw(KEY, "inactive", 15)
    ledger.saw(KEY, "inactive", 16)
    assert counts(ledger) == (1, 1, 0)


def test_switches_that_come_late_or_never():
    ledger = Ledger()
    ledger.expect(KEY, "inactive", 10, 20)
    ledger.expect(OTHER, "inactive", 10, 20)
    ledger.saw(KEY, "inactive", 21)
    ledger.give_up(20)
    assert ledger.is_due(OTHER)
    ledger.give_up(20.5)
    assert counts(ledger) == (0, 0, 2) and not ledger.is_clean and not ledger.is_due()
