"""An FTP server for the tests: python3-pyftpdlib, with the settings of its one argument (JSON)."""

import json
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer

COMMANDS = {"active": ("PORT", "EPRT"), "passive": ("PASV", "EPSV")}


def clear_data_handler(certificate):
    """TLS for commands only. Commands are logged."""
    # pylint: disable=import-outside-toplevel
    from pyftpdlib.handlers import TLS_FTPHandler  # This class exists only with python3-openssl.

    class Handler(TLS_FTPHandler):
        """Refuses PROT P."""

        certfile = certificate

        def ftp_PROT(self, line):  # pylint: disable=invalid-name,unused-argument
            self.respond("536 No protection of data.")

    logging.basicConfig(level=logging.DEBUG)
    return Handler


def main():
    settings = json.loads(sys.argv[1])
    authorizer = DummyAuthorizer()
    permissions = "elr" + ("d" if settings["writable"] else "")
    authorizer.add_user(settings["user"], settings["password"], settings["root"], permissions)
    certificate = settings["certificate"]
    handler = clear_data_handler(certificate) if certificate else FTPHandler
    handler.authorizer = authorizer
    for mode, commands in COMMANDS.items():
        if mode not in settings["modes"]:
            handler.proto_cmds = {k: v for k, v in handler.proto_cmds.items() if k not in commands}
    if settings["rate"]:
        handler.dtp_handler = ThrottledDTPHandler
        handler.dtp_handler.write_limit = settings["rate"]
    FTPServer(("127.0.0.1", settings["port"]), handler).serve_forever()


main()
