# SPDX-License-Identifier: MIT
# supervisors.py: other programs that start and watch programs, each with several services that run an actor.
#
# The bench uses the tools of s6 and runit, as their users do. The tool of supervisor is a Python program that
# takes longer to load than all other steps together, so the bench uses supervisor's socket.
import http.client
import os
import socket
import subprocess
import time
import xmlrpc.client
from pathlib import Path

from support.place import STAGE
from support.processes import children_of

from machine import ACTORS, private_kib, wait_for

ACTOR = f"{ACTORS}/corvane-ls"


class Directories:
    """What s6 and runit share: a directory for each service, and a process for each directory."""

    def __init__(self, machine, services):
        self.machine = machine
        self.directories = [f"{STAGE}/{self.name}/{number}" for number in range(services)]
        for directory in self.directories:
            os.makedirs(directory)
            os.symlink(ACTOR, f"{directory}/run")
            Path(f"{directory}/down").touch()  # so that the service waits for a start
        self.watcher = machine.start([*self.command, f"{STAGE}/{self.name}"])
        for directory in self.directories:
            pipe = f"{directory}/supervise/{self.pipe}"
            wait_for(pipe, lambda: os.path.exists(pipe))

    def start(self, turn):
        return self.machine.ask("run", *self.tool, self.directories[turn])[0]

    def private_kib(self):
        """The memory of the process for all services, and of the process for each one."""
        each = children_of(self.watcher.pid)
        return private_kib(self.watcher.pid), sum(map(private_kib, each)) / len(each)


class S6(Directories):
    name, program, pipe = "s6", "s6-svscan", "control"
    command, tool = ["s6-svscan"], ["s6-svc", "-u"]


class Runit(Directories):
    name, program, pipe = "runit", "runsvdir", "ok"
    command, tool = ["runsvdir"], ["sv", "start"]


class UnixConnection(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(Supervisor.SOCKET)


class UnixTransport(xmlrpc.client.Transport):
    def make_connection(self, _):
        self._connection = self._connection if self._connection[0] else ("", UnixConnection("localhost"))
        return self._connection[1]


class Supervisor:
    SOCKET = f"{STAGE}/supervisor.sock"
    CONFIGURATION = f"""
[unix_http_server]
file={SOCKET}
[supervisord]
nodaemon=true
logfile=/dev/null
logfile_maxbytes=0
pidfile={STAGE}/supervisor.pid
[rpcinterface:supervisor]
supervisor.rpcinterface_factory=supervisor.rpcinterface:make_main_rpcinterface
"""
    name, program = "supervisor", "supervisord"

    def __init__(self, machine, services):
        self.machine, self.services = machine, services
        configuration = f"{STAGE}/supervisor.conf"
        with open(configuration, "w") as file:
            file.write(self.CONFIGURATION)
            for number in range(services):
                file.write(f"[program:a{number}]\ncommand={ACTOR}\nautostart=false\nstartsecs=0\n")
        self.process = machine.start(["supervisord", "-c", configuration], stdout=subprocess.DEVNULL)
        self.server = xmlrpc.client.ServerProxy("http://localhost", transport=UnixTransport())
        wait_for("supervisor", self.answers)
        self.idle = private_kib(self.process.pid)

    def answers(self):
        """Whether supervisor listens. Its socket can exist earlier."""
        try:
            return self.server.supervisor.getState()
        except (ConnectionRefusedError, FileNotFoundError):
            return None

    def start(self, turn):
        begin = time.monotonic_ns()
        self.server.supervisor.startProcess(f"a{turn}", False)
        return self.machine.ask("started")[0] - begin

    def private_kib(self):
        return self.idle, (private_kib(self.process.pid) - self.idle) / self.services


ALL = (S6, Runit, Supervisor)
