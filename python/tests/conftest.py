import os
import subprocess
import sys

import pytest

ROWS = os.path.join(os.path.dirname(__file__), "..", "..", "lib", "Vorlink", "src", "ZelkoMsgRows.txt")


def pytest_addoption(parser):
    parser.addoption("--proto", help="ZelkoMsgDefs.proto to make Python's protobuf classes from")


@pytest.fixture(scope="session")
def pb2(request, tmp_path_factory):
    """The schema's classes, made by protoc for Python's protobuf from the .proto file."""
    proto = os.path.abspath(request.config.getoption("--proto") or os.path.join(os.path.dirname(ROWS),
                                                                                "ZelkoMsgDefs.proto"))
    out = tmp_path_factory.mktemp("pb2")
    subprocess.run(["protoc", f"-I{os.path.dirname(proto)}", f"--python_out={out}", proto], check=True)
    sys.path.insert(0, str(out))
    import ZelkoMsgDefs_pb2
    return ZelkoMsgDefs_pb2
