"""A desk with a complete station."""

from pathlib import Path

from harness.companions import COMPANIONS
from harness.desk import Desk
from harness.files import parser
from harness.programs import start_command
from harness.station import Station
from harness.wait import wait_until

TEMPLATES = """# Title | directory | text
Train leaves | announcements | The train to {place} leaves from platform {number}.
Lost child | announcements | Would the parents of {name} please come to the {place}.
Nobody can use this | nowhere | Of a directory that is not there.
This line is broken
"""


class Scene:
    """A station with a daemon, a translator, a player that writes a WAV file, and a desk."""

    def __init__(self, root):
        self.root = Path(root)
        self.root.mkdir(exist_ok=True)
        self.player = None
        self.station = Station(self.root / "s", (), words=5, files=2, status=False, output=False)
        self.run = self.station.run_path
        self.station.status_path = self.run / "status.xml"
        self.station.translator.unlink()
        self.station.translator.symlink_to(COMPANIONS / "translators/espeak-ng")
        text = {"parser": "text", "encoding": "utf8"}
        self.station.configure(
            self.station.directory("announcements", priority=5, **text),
            self.station.directory("platform", priority=6, conv_opts="speed=220", **text),
            self.station.directory("alarms", priority=1, parser="alert", encoding="utf8"),
            parser("alert", ("headline",), ("instruction", "lang", "en", "info")),
        )
        options = ("--run", self.run, "--translator", self.station.translator)
        self.desk = Desk(self.root / "desk", options, users=("look", "operate"))
        self.desk.add_user("anna", "say")
        (self.desk.root / "templates").write_text(TEMPLATES)

    @property
    def address(self):
        return f"http://127.0.0.1:{self.desk.port}"

    def start(self):
        """Starts all programs; returns when a message can be played."""
        self.station.start()
        self.start_player(
            [COMPANIONS / "player", "--config", self.station.config, "--run", self.run]
        )
        wait_until((self.run / "player").exists, "the player's state")
        self.desk.start()

    def start_player(self, command):
        self.player = start_command(*command, "--null", "--wav", self.root / "said.wav")

    def messages(self):
        """State and file of each message that the station knows."""
        return [(m.get("state"), m.get("file")) for m in self.station.health().iter("message")]

    def wait_until_quiet(self):
        wait_until(
            lambda: all(state in ("heard", "dropped") for state, _ in self.messages()), "silence"
        )

    def close(self):
        self.desk.close()
        if self.player:
            self.player.kill()
            self.player.communicate()
        self.station.close()
