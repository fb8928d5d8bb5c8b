"""Shows that each check of the soak can fail."""

import pathlib
import tempfile

import test_growth
import test_processes
import test_records
from cases import Cases


def run(programs):
    """Returns how many checks missed a defect, or reported a problem without one."""
    cases = Cases()
    with tempfile.TemporaryDirectory(prefix="qmsoak.") as name:
        directory = pathlib.Path(name)
        test_growth.test_trends(cases)
        test_growth.test_bounds(cases, directory)
        test_records.test_stamps(cases)
        test_records.test_shared_record(cases, directory)
        test_records.test_ledger(cases, directory)
        test_records.test_reads(cases, directory)
        test_records.test_files(cases, directory)
        test_processes.test_processes(cases, directory)
        test_processes.test_client(cases, directory, programs / "soak_client")
    for failure in cases.failures:
        print("FAILED " + failure)
    print("self-test: %d cases, %d failed" % (cases.count, len(cases.failures)))
    return len(cases.failures)
