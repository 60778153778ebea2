"""Names that clang-tidy cannot judge: to its lower case, any_name_t is as good as any_name."""
import re

from conftest import ROOT

# An interface of old, as the records are whose names begin with a capital.
OLD = {"dbg_section_t", "gwCmdID_t", "obnCmdID_t", "rplPrefix_t", "tav_timestamp_t", "winserw_sock_cmd_t"}
RECORDS_OF_OLD = r"(gwMsg|srvMsg|msg)[A-Z]\w*_t"
KEPT = {"bytes_t", "texts_t"}  # in hundreds of lines of tests


def test_types_of_our_own_do_not_end_in_t():
    files = [path for folder in ("src", "libs", "tools", "tests", "bench", "fuzz")
             for path in (ROOT / folder).rglob("*") if path.suffix in (".cpp", ".h")]
    defined = [(str(file), name) for file in files
               for name in re.findall(r"^[ \t]*(?:typedef )?(?:struct|class|union|enum(?: class)?|using) ([a-z]\w*_t)\b(?! *;)",
                                      file.read_text(), re.M)]
    assert len(defined) > 10
    assert not [(file, name) for file, name in defined
                if name not in OLD | KEPT and not re.fullmatch(RECORDS_OF_OLD, name)]
