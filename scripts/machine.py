"""The machine that the figures of the benchmark and of the soak are from."""

import os
import platform
import subprocess


def describe(directory):
    """directory is on the file system that is measured."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        processor = next((line.split(":", 1)[1].strip() for line in file
                          if line.startswith("model name")), "unknown")
    # stat calls each of ext2, ext3 and ext4 "ext2/ext3".
    file_system = subprocess.run(["findmnt", "--noheadings", "--output", "FSTYPE", "--target",
                                  directory],
                                 check=True, capture_output=True, text=True).stdout.strip()
    return {"cores": os.cpu_count(), "kernel": platform.release(), "processor": processor,
            "fileSystem": file_system}


def to_text(machine):
    return "%(processor)s, %(cores)d cores, kernel %(kernel)s, %(fileSystem)s" % machine
