"""FTP, SFTP and SMB servers on loopback, each in its own tree.

A Server shows the directory `inbox` to a client that logs in with its user name and password. It
starts on a free port, and uses the same port after a restart.
"""

import contextlib
import json
import os
import pwd
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

from harness.programs import HERE, descendants
from harness.wait import wait_until

# It has all characters that need care in a client's commands, a URL or a list.
PASSWORD = "  a \"b'c\\d$e;f&g|h#i!j%k,l@m:n/ö"

# Ports for servers, below the range from which the system chooses ports itself.
PORTS = range(10000, 32000)


def user_name():
    return pwd.getpwuid(os.getuid()).pw_name


def accepts(port):
    """Whether a server accepts connections to that port."""
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 5):
        return True
    return False


def run_quietly(*command, data=""):
    done = subprocess.run(
        [str(word) for word in command], input=data, capture_output=True, text=True, check=False
    )
    assert done.returncode == 0, done.stderr
    return done.stdout


def make_certificates(root, host):
    """Makes ca.crt and, signed by it, server.crt and server.key for a host."""
    new = ("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")
    new += ("-nodes", "-days", "7")
    run_quietly(*new, "-subj", "/CN=Test", "-keyout", root / "ca.key", "-out", root / "ca.crt")
    kind = "IP" if host[0].isdigit() else "DNS"
    run_quietly(
        *(*new, "-subj", "/CN=Server", "-CA", root / "ca.crt", "-CAkey", root / "ca.key"),
        *("-addext", f"subjectAltName={kind}:{host}", "-addext", "basicConstraints=CA:FALSE"),
        *("-keyout", root / "server.key", "-out", root / "server.crt"),
    )


class Server:
    """The common part of the servers.

    writable: whether files may be deleted. modes: the FTP modes that the server knows. rate: its
    limit in bytes per second, 0 for none (not with SMB).
    """

    kind = "ftp"
    user = "ftp"

    def __init__(self, root, writable=True, modes=("active", "passive"), rate=0):
        self.root = root
        self.tree = root / "tree"
        self.inbox = self.tree / "inbox"
        self.inbox.mkdir(parents=True)
        self.writable = writable
        self.modes = modes
        self.rate = rate
        self.port = None
        self.front = self  # where clients connect: the server or a proxy
        self.process = None

    @property
    def name(self):
        return type(self).__name__.lower()

    # Each class of servers defines these.

    def command(self):
        """The command that runs the server on self.port, in the foreground."""
        raise NotImplementedError

    @property
    def path(self):
        """The inbox as the helper's PATH."""
        return f"127.0.0.1:{self.front.port}/inbox"

    # Start and end.

    def start(self):
        """Starts the server and waits until it answers; returns it."""
        if self.port:
            assert self.try_start(), self.describe()
            return self
        for _ in range(10):  # another process may take the port first
            self.port = random.choice(PORTS)
            if not accepts(self.port) and self.try_start():
                return self
        raise AssertionError(self.describe())

    def try_start(self):
        with open(self.root / "server.log", "ab") as log:
            self.process = subprocess.Popen(
                [
                    "setpriv",
                    "--pdeathsig",
                    "KILL",
                    *self.command(),
                ],  # ends with a test that is killed
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                **self.options(),
            )
        wait_until(lambda: self.process.poll() is not None or accepts(self.port), self.describe)
        return self.process.poll() is None

    def options(self):
        return {"start_new_session": True}

    def signal(self, number):
        """Sends a signal to the server and its sessions, which may have groups of their own."""
        for pid in descendants(self.process.pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, number)

    def stop(self):
        """Ends the server and every session of it."""
        if not self.process:
            return
        self.signal(signal.SIGSTOP)  # so that no session begins while they are counted
        self.signal(signal.SIGKILL)
        self.process.wait()
        self.process = None

    def close(self):
        self.stop()

    def freeze(self):
        """From now on, the server does not answer. The system still accepts connections for it."""
        self.signal(signal.SIGSTOP)

    def thaw(self):
        self.signal(signal.SIGCONT)

    def log(self):
        return (self.root / "server.log").read_text(errors="replace")

    def describe(self):
        return f"{type(self).__name__} at port {self.port}: {self.log()}"

    # Its files.

    def put(self, name, text, subdir=""):
        """Puts a complete file into the inbox by a rename, replacing a file of that name."""
        data = text.encode() if isinstance(text, str) else text
        upload = self.root / "upload"
        upload.write_bytes(data)
        upload.rename(self.inbox / subdir / name)

    def remove(self, name):
        (self.inbox / name).unlink()

    def names(self):
        return sorted(path.name for path in self.inbox.iterdir())

    # The configuration of its clients.

    def arguments(self, watch, **changes):
        """The helper's arguments, in its order."""
        values = {"path": self.path, "user": self.user, "password": PASSWORD, "subdir": ""}
        values.update({"auto_delete": 0, "poll": 1, "mode": "passive,settle=0"}, **changes)
        order = ("path", "subdir", "user", "password", None, "auto_delete", "poll", "mode")
        return [str(values[name]) if name else str(watch) for name in order]

    def attributes(self, **changes):
        """The attributes of the daemon's directory element."""
        values = {"type": self.kind, "path": self.path, "username": self.user}
        values.update({"password": PASSWORD, "ftp_poll_rate": 1, "ftp_mode": "settle=0"}, **changes)
        return values


class PyFtpdLib(Server):
    """Has MLSD. With clear_data, it offers TLS for commands and refuses it for data."""

    user = "u,v \"w'x\\y$z"

    def __init__(self, root, clear_data=False, **options):
        super().__init__(root, **options)
        self.certificate = None
        if clear_data:
            make_certificates(root, "127.0.0.1")
            self.certificate = str(root / "server.pem")
            text = [(root / f"server.{end}").read_text() for end in ("crt", "key")]
            Path(self.certificate).write_text("".join(text))

    def command(self):
        settings = {
            "port": self.port,
            "root": str(self.tree),
            "user": self.user,
            "password": PASSWORD,
            "writable": self.writable,
            "modes": self.modes,
            "rate": self.rate,
            "certificate": self.certificate,
        }
        return [sys.executable, str(HERE / "ftp_server.py"), json.dumps(settings)]


class VsFtpd(Server):
    """Has LIST and MDTM, but not MLSD.

    It serves "anonymous" users with the rights of the user who runs the test, and has a list of
    accepted passwords. That needs no user account, no PAM service and no privilege.

    tls: "", "explicit" or "implicit". host: the host of its certificate.
    """

    def __init__(self, root, tls="", host="127.0.0.1", **options):
        super().__init__(root, **options)
        self.tls = tls
        if tls:
            make_certificates(root, host)

    @property
    def path(self):
        scheme = {"": "", "explicit": "ftpes://", "implicit": "ftps://"}[self.tls]
        return scheme + super().path

    def arguments(self, watch, **changes):
        if self.tls:
            changes.setdefault("mode", f"passive,settle=0,ca={self.root}/ca.crt")
        return super().arguments(watch, **changes)

    def tls_settings(self):
        return {
            "ssl_enable": "YES",
            "allow_anon_ssl": "YES",
            "force_anon_logins_ssl": "YES",
            "force_anon_data_ssl": "YES",
            "implicit_ssl": "YES" if self.tls == "implicit" else "NO",
            "rsa_cert_file": self.root / "server.crt",
            "rsa_private_key_file": self.root / "server.key",
        }

    def command(self):
        passwords = self.root / "passwords"
        passwords.write_text(PASSWORD + "\n")
        empty = self.root / "empty"
        empty.mkdir(exist_ok=True)
        settings = {
            "listen": "YES",
            "listen_address": "127.0.0.1",
            "listen_port": self.port,
            "background": "NO",
            "run_as_launching_user": "YES",
            "seccomp_sandbox": "NO",
            "secure_chroot_dir": empty,
            "local_enable": "NO",
            "anonymous_enable": "YES",
            "ftp_username": user_name(),
            "anon_root": self.tree,
            "anon_world_readable_only": "NO",
            "allow_writeable_chroot": "YES",
            "secure_email_list_enable": "YES",
            "email_password_file": passwords,
            "write_enable": "YES",
            "anon_other_write_enable": "YES" if self.writable else "NO",
            "anon_max_rate": self.rate,
            "pasv_enable": "YES" if "passive" in self.modes else "NO",
            "port_enable": "YES" if "active" in self.modes else "NO",
            "connect_from_port_20": "NO",
            "xferlog_enable": "YES",
            "vsftpd_log_file": self.root / "vsftpd.log",
        }
        if self.tls:
            settings.update(self.tls_settings())
        config = self.root / "vsftpd.conf"
        config.write_text("".join(f"{name}={value}\n" for name, value in settings.items()))
        return ["/usr/sbin/vsftpd", str(config)]


class Sshd(Server):
    """OpenSSH's SFTP. Its user is the one who runs the test, and logs in with a key.

    login: "key", "locked key" (one that has a password) or "password", one of the server's own,
    which needs root.
    """

    user = user_name()

    def __init__(self, root, login="key", **options):
        super().__init__(root, **options)
        self.login = login
        self.known = "host_key"
        for name, lock in (("host_key", ""), ("user_key", PASSWORD * (login == "locked key"))):
            run_quietly("ssh-keygen", "-q", "-t", "ed25519", "-N", lock, "-f", root / name)

    @property
    def path(self):
        return f"sftp://{super().path}"

    def write_known_hosts(self):
        """Writes the file with the host key that the client expects."""
        words = (self.root / f"{self.known}.pub").read_text().split()[:2]
        ports = {self.port, self.front.port}
        lines = [f"[127.0.0.1]:{port} {' '.join(words)}\n" for port in ports]
        (self.root / "known_hosts").write_text("".join(lines))

    def arguments(self, watch, **changes):
        self.write_known_hosts()
        mode = f"settle=0,known-hosts={self.root}/known_hosts"
        if self.login != "password":
            mode += f",key={self.root}/user_key"
        if self.login == "key":
            changes.setdefault("password", "")
        changes.setdefault("mode", mode)
        return super().arguments(watch, **changes)

    def attributes(self, **changes):
        arguments = self.arguments("", **changes)
        values = {"password": arguments[3], "ftp_mode": arguments[7]}
        return super().attributes(**{**values, **changes})

    def command(self):
        settings = {
            "Port": self.port,
            "ListenAddress": "127.0.0.1",
            "HostKey": self.root / "host_key",
            "AuthorizedKeysFile": self.root / "user_key.pub",
            "StrictModes": "no",
            "UsePAM": "no",
            "PidFile": "none",
            "PermitRootLogin": "yes",
            "MaxStartups": 100,
            "LogLevel": "VERBOSE",
            "PasswordAuthentication": "yes" if self.login == "password" else "no",
            "Subsystem": f"sftp internal-sftp -d {self.tree}{'' if self.writable else ' -R'}",
        }
        config = self.root / "sshd_config"
        config.write_text("".join(f"{name} {value}\n" for name, value in settings.items()))
        command = ["/usr/sbin/sshd", "-D", "-e", "-f", str(config)]
        return command if os.getuid() else [*self.privately(), *command]

    def privately(self):
        """A prefix for root's server: makes a directory in /run, and replaces the password."""
        script = "mount -t tmpfs none /run && mkdir /run/sshd"
        if self.login == "password":
            hashed = run_quietly("openssl", "passwd", "-6", "-stdin", data=PASSWORD + "\n").strip()
            (self.root / "shadow").write_text(f"{self.user}:{hashed}:19000:0:99999:7:::\n")
            script += f" && mount --bind {self.root}/shadow /etc/shadow"
        return ["unshare", "--mount", "sh", "-c", script + ' && exec "$@"', "sh"]


class Smbd(Server):
    kind = "cifs"
    user = user_name()

    def __init__(self, root, **options):
        super().__init__(root, **options)
        # The state has sockets, and a socket's path has at most 107 bytes.
        self.state = Path(tempfile.mkdtemp(prefix="smbd-"))

    @property
    def path(self):
        return "//127.0.0.1/share/inbox"

    def close(self):
        super().close()
        shutil.rmtree(self.state)

    def command(self):
        config = self.root / "smb.conf"
        directories = ("private", "state", "lock", "cache", "pid", "ncalrpc", "binddns")
        names = {"private": "private dir", "ncalrpc": "ncalrpc dir", "binddns": "binddns dir"}
        lines = [
            "[global]",
            f"smb ports = {self.port}",
            "bind interfaces only = yes",
            "interfaces = 127.0.0.1/8",
            "disable netbios = yes",
            "load printers = no",
            "disable spoolss = yes",
            "server role = standalone server",
            "usershare max shares = 0",
            "map to guest = bad user",
            f"guest account = {self.user}",
            f"passdb backend = tdbsam:{self.root}/passdb.tdb",
            f"log file = {self.root}/smbd.log",
        ]
        for name in directories:
            (self.state / name).mkdir(exist_ok=True)
            lines.append(f"{names.get(name, name + ' directory')} = {self.state}/{name}")
        for share, guest in (("share", "no"), ("open", "yes")):
            lines += [
                f"[{share}]",
                f"path = {self.tree}",
                f"read only = {'no' if self.writable else 'yes'}",
                f"guest ok = {guest}",
            ]
        config.write_text("\n".join(lines) + "\n")
        if not (self.root / "passdb.tdb").exists():
            subprocess.run(
                ["pdbedit", "-s", config, "-a", "-t", "-u", self.user],  # smbpasswd needs root
                input=f"{PASSWORD}\n{PASSWORD}\n".encode(),
                check=True,
                stdout=subprocess.DEVNULL,
            )
        return ["/usr/sbin/smbd", "--foreground", "--debug-stdout", f"--configfile={config}"]

    def options(self):
        return {}  # it becomes the leader of a process group, which a session leader cannot

    def arguments(self, watch, **changes):
        values = {"path": self.path, "user": self.user, "password": PASSWORD, "subdir": ""}
        values.update(
            {"auto_delete": 0, "mount_opts": f"port={self.front.port},settle=0"}, **changes
        )
        order = ("path", "user", "password", "subdir", None, "mount_opts", "auto_delete")
        return [str(values[name]) if name else str(watch) for name in order]

    def attributes(self, **changes):
        options = f"port={self.front.port},settle=0"
        values = super().attributes(mount_opts=options, **changes)
        del values["ftp_poll_rate"], values["ftp_mode"]
        return values


SERVERS = {"pyftpdlib": PyFtpdLib, "vsftpd": VsFtpd, "sshd": Sshd, "smbd": Smbd}
