"""Runs a command and tells what it cost."""
import os
import subprocess
import tempfile
from dataclasses import asdict, dataclass
from statistics import median


@dataclass
class Cost:
    """What one run of a process cost, its threads included."""

    cpu: float  # seconds, user and system
    wall: float  # seconds
    resident: int  # KiB, at most
    code: int
    output: str = ""  # of those that print what they measured themselves

    def as_dict(self):
        return {key: value for key, value in asdict(self).items() if key != "output"}


class Runner:
    """Runs commands through the small program that measures them."""

    def __init__(self, programs, scratch, timeout):
        self.programs = programs
        self.scratch = scratch
        self.timeout = timeout

    def run(self, command, wants_output=False):
        """One run. What the command prints is dropped unless it is wanted."""
        result = os.path.join(self.scratch, "cost")
        with tempfile.TemporaryFile() as errors:
            out = subprocess.PIPE if wants_output else subprocess.DEVNULL
            try:
                ran = subprocess.run(
                    [os.path.join(self.programs, "bench_measure"), result, *command],
                    stdin=subprocess.DEVNULL, stdout=out, stderr=errors, cwd=self.scratch, timeout=self.timeout,
                    check=True, env={**os.environ, "LC_ALL": "C", "TERM": "dumb"})
            except subprocess.SubprocessError as error:
                raise RuntimeError(f"{command[0]}: {error}") from error
            errors.seek(0)
            said = errors.read().decode(errors="replace").strip()
        with open(result, encoding="ascii") as file:
            user, system, wall, resident, code = (int(word) for word in file.read().split())
        cost = Cost((user + system) / 1e6, wall / 1e6, resident, code, (ran.stdout or b"").decode())
        # 4: done, but the volume's map is not to be believed; a benchmark's volume is sound.
        if cost.code != 0:
            raise RuntimeError(f"{' '.join(command)}: exit code {cost.code}: {said[-300:]}")
        return cost


def medians(costs):
    """The middle of each number."""
    return Cost(median(cost.cpu for cost in costs), median(cost.wall for cost in costs),
                int(median(cost.resident for cost in costs)), 0)
