"""A real Prometheus, which scrapes a daemon every second and evaluates the rules in monitoring/."""
import json
import shutil
import subprocess
import urllib.parse
import urllib.request

from .daemon import ROOT, free_port
from .peers import wait_until

MONITORING = ROOT / "monitoring"
DASHBOARD = json.loads((MONITORING / "dashboard.json").read_text())


def with_variables(query: str) -> str:
    """A query of the dashboard, with what Grafana puts into it."""
    return query.replace("$__rate_interval", "10s").replace("$instance", ".*")


class Prometheus:
    def __init__(self, folder, target: int):
        assert shutil.which("prometheus"), "scripts/install-deps test"
        self.port = free_port()
        config = folder / "prometheus.yml"
        config.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [str(MONITORING / "alerts.yml")],
            "scrape_configs": [{"job_name": "rtls-gateway", "static_configs": [{"targets": [f"127.0.0.1:{target}"]}]}]}))
        self.log = open(folder / "prometheus.txt", "wb")
        self.process = subprocess.Popen(
            ["prometheus", f"--config.file={config}", f"--storage.tsdb.path={folder / 'tsdb'}",
             f"--web.listen-address=127.0.0.1:{self.port}"], stdout=self.log, stderr=subprocess.STDOUT)
        wait_until(lambda: self._get("-/ready") is not None, "Prometheus")

    def _get(self, path: str):
        try:
            opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
            with opener.open(f"http://127.0.0.1:{self.port}/{path}", timeout=20) as answer:
                return answer.read()
        except urllib.error.HTTPError as error:
            return error.read() if error.code == 400 else None
        except OSError:
            return None

    def ask(self, path: str, **parameters):
        """The data of an answer of its API."""
        answer = json.loads(self._get(f"api/v1/{path}?" + urllib.parse.urlencode(parameters)) or "{}")
        assert answer.get("status") == "success", f"{path} {parameters}: {answer}"
        return answer["data"]

    def query(self, expression: str) -> list:
        return self.ask("query", query=expression)["result"]

    def query_range(self, expression: str, start: float, end: float, step: float) -> list:
        return self.ask("query_range", query=expression, start=start, end=end, step=step)["result"]

    def targets(self) -> list:
        return self.ask("targets")["activeTargets"]

    def rules(self) -> list:
        return [rule for group in self.ask("rules")["groups"] for rule in group["rules"]]

    def close(self):
        self.process.terminate()
        self.process.wait(30)
        self.log.close()
