# Holds SDDL, as the command printed it, against the descriptors that it stands for, read by an independent parser.
# Arguments: a file with one line a descriptor (SDDL, a tab, anything), and a directory with the descriptors as files
# named 0, 1, 2, ... Prints what differs; the exit code is 1 then.
import pathlib
import sys

from samba.dcerpc import security
from samba.ndr import ndr_unpack

PROTECTED = {"sacl": 0x2000, "dacl": 0x1000}


def entries(acl):
    return [(ace.type, ace.flags, ace.access_mask, str(ace.trustee)) for ace in acl.aces] if acl else []


def lists(descriptor):
    result = {}
    for name, bit in PROTECTED.items():
        found = entries(getattr(descriptor, name))
        if found:
            result[name] = (bool(descriptor.type & bit), found)
    return result


def main(printed, directory):
    domain = security.dom_sid("S-1-5-21-1-2-3")
    differences = 0
    lines = pathlib.Path(printed).read_text().splitlines()
    for number, line in enumerate(lines):
        stored = ndr_unpack(security.descriptor, (pathlib.Path(directory) / str(number)).read_bytes())
        own = security.descriptor.from_sddl(line.split("\t")[0], domain)
        if lists(stored) != lists(own):
            print(line, lists(stored), lists(own), sep="\n  ")
            differences += 1
    print(len(lines), "descriptors,", differences, "differ")
    return 1 if differences else 0


sys.exit(main(*sys.argv[1:]))
