# SPDX-License-Identifier: MIT
# test_machine.py: the daemon starts, serves and ends. All other stories rely on this.


def test_the_daemon_starts_serves_and_is_terminated_by_a_signal(machine):
    assert machine.caller().hello() == "How are you?"
    machine.daemon.terminate()
    assert machine.daemon.wait(10) == -15


def test_an_actor_runs_as_a_child_of_the_daemon_until_it_is_stopped(machine):
    caller = machine.caller()
    assert caller.start(":3", "xhotkey") is True
    (record,) = machine.wait_records(1)
    assert record.argv == ["corvane-xh", "-display", ":3"]
    assert record.parent == machine.daemon.pid
    assert caller.stop(":3", "xhotkey") is True
    machine.wait_gone(record.pid)
    machine.wait_log("keep_alive field is FALSE. Exit from the current thread")
