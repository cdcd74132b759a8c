"""The scenarios: a table of rows, each a function with its arguments and what it may cost.

A row's limits are the documented guarantees (docs/guarantees.md), not what happened to be measured:
`lost` and `repeated` are the most that the row may show, None where the case is one that loses or
repeats by design.
"""
from dataclasses import dataclass, field

import faults_call
import faults_files
import faults_host
import faults_kill
import faults_network
import faults_policy
import faults_program
import faults_receiver
import faults_rotation
import faults_stop
from lab import Lab


@dataclass(frozen=True)
class Row:
    name: str
    run: object
    arguments: dict = field(default_factory=dict)
    lost: object = 0          # most events that may be missing; None = by design
    repeated: object = 0      # most that may come twice; a function of the lab's figures, or None
    lab: object = Lab


def per_kill(figures):
    """At most one event for each kill and worker; a confirmed group instead where there is one."""
    return figures["kills"] * figures["workers"] * figures.get("group", 1)


def rows():
    table = []
    for module in (faults_files, faults_host, faults_rotation, faults_kill, faults_policy,
                   faults_stop, faults_receiver, faults_network, faults_call, faults_program):
        table += [Row(**row) for row in module.ROWS]
    names = [row.name for row in table]
    assert len(set(names)) == len(names), "two rows of one name"
    return table
