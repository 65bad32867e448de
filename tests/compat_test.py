"""scripts/compat on edited copies of the released dictionary, one edit each: every breaking edit is
reported naming message, field and reader, additions pass; scripts/symbols on the built library.

    compat_test.py LIBRARY
"""
import gzip, os, re, shutil, subprocess, sys, tempfile, unittest
from importlib.machinery import SourceFileLoader

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
compat = SourceFileLoader("compat", os.path.join(ROOT, "scripts", "compat")).load_module()
gen = compat.gen
LIBRARY = sys.argv[1]
BASELINE = os.path.join(ROOT, "compat", "1.0.0")
SYMBOLS = os.path.join(ROOT, "packaging", "libvorlink1.symbols.gz")
with open(os.path.join(BASELINE, compat.ROWS), encoding="utf-8") as f:
    RELEASED = f.read()
NEW_ROW = "0xBA00  MSG_ID_UI_NEW_THING  UiNewThing  4  value:U32\n"


def edited(old, new, row=""):
    """The released rows with OLD replaced by NEW, on the one line that holds OLD (and ROW)."""
    lines = [line for line in RELEASED.splitlines() if old in line and re.search(rf"\s{row}\s", line)]
    assert len(lines) == 1, (old, row)
    return RELEASED.replace(lines[0], lines[0].replace(old, new))


class Check(unittest.TestCase):
    def run_check(self, rows, schema=None, version=(1, 0, 0), symbols=SYMBOLS, baseline=BASELINE):
        with tempfile.TemporaryDirectory() as tmp:
            paths = [os.path.join(tmp, name) for name in (compat.ROWS, compat.SCHEMA)]
            with open(paths[0], "w", encoding="utf-8") as f:
                f.write(rows)
            with open(paths[1], "w", encoding="utf-8") as f:
                f.write(schema or gen.proto(gen.parse_rows(paths[0])))
            return compat.check(*paths, symbols, version, baseline)

    def test_each_breaking_edit_is_named_with_its_reader(self):
        status = "alarmState:U32 alarmTop:U32 silenceExpiresIn:U32 alarmsFlags:U16"
        cases = {
            "moved": (edited(f"14  {status}", f"18  alarmState:U32 alarmCount:U32 {status[15:]}"), [
                "AlarmStatusData.alarmTop: moved from byte 4 to byte 8 (breaks the nodes)",
                "AlarmStatusData.silenceExpiresIn: moved from byte 8 to byte 12 (breaks the nodes)",
                "AlarmStatusData.alarmsFlags: moved from byte 12 to byte 16 (breaks the nodes)",
                "AlarmStatusData.alarmCount: added at byte 4 (breaks the nodes)",
                "AlarmStatusData: payload size changed from 14 to 18 bytes (breaks the nodes)",
                "AlarmStatusData.alarmTop: number changed from 3 to 4 (breaks schema readers)",
                "AlarmStatusData.silenceExpiresIn: number changed from 4 to 5 (breaks schema readers)",
                "AlarmStatusData.alarmsFlags: number changed from 5 to 6 (breaks schema readers)",
                "AlarmStatusData: record AlarmStatusDataPayload changes its fields (breaks host programs)",
                "VORLINK_ALARM_STATUS_DATA_SIZE: changed from 14 to 18 (breaks firmware sources)",
                "struct vorlink_alarm_status_data: member alarmCount added (breaks firmware sources)"]),
            "swapped": (edited("d1Temp:F32 d78Temp:F32", "d78Temp:F32 d1Temp:F32"), [
                "DdTemperatureData.d1Temp: moved from byte 0 to byte 4 (breaks the nodes)",
                "DdTemperatureData.d78Temp: moved from byte 4 to byte 0 (breaks the nodes)",
                "DdTemperatureData.d1Temp: number changed from 2 to 3 (breaks schema readers)",
                "DdTemperatureData.d78Temp: number changed from 3 to 2 (breaks schema readers)",
                "DdTemperatureData: record DdTemperatureDataPayload changes its fields (breaks host programs)",
                "struct vorlink_dd_temperature_data: members reordered (breaks firmware sources)"]),
            "appended": (edited(f"14  {status}", f"18  {status} alarmCount:U32"), [
                "AlarmStatusData.alarmCount: added at byte 14 (breaks the nodes)",
                "AlarmStatusData: payload size changed from 14 to 18 bytes (breaks the nodes)",
                "AlarmStatusData: record AlarmStatusDataPayload changes its fields (breaks host programs)",
                "VORLINK_ALARM_STATUS_DATA_SIZE: changed from 14 to 18 (breaks firmware sources)",
                "struct vorlink_alarm_status_data: member alarmCount added (breaks firmware sources)"]),
            "last removed": (edited(f"14  {status}", f"12  {status[:-16]}"), [
                "AlarmStatusData.alarmsFlags: removed from byte 12 (breaks the nodes)",
                "AlarmStatusData: payload size changed from 14 to 12 bytes (breaks the nodes)",
                "AlarmStatusData.alarmsFlags: removed (number 5) (breaks schema readers)",
                "AlarmStatusData: record AlarmStatusDataPayload changes its fields (breaks host programs)",
                "VORLINK_ALARM_STATUS_DATA_SIZE: changed from 14 to 12 (breaks firmware sources)",
                "struct vorlink_alarm_status_data: member alarmsFlags removed (breaks firmware sources)"]),
            "widened": (edited(f"14  {status}", f"16  {status[:-3]}U32"), [
                "AlarmStatusData.alarmsFlags: widened from U16 to U32 (breaks the nodes)",
                "AlarmStatusData: payload size changed from 14 to 16 bytes (breaks the nodes)",
                "AlarmStatusData: record AlarmStatusDataPayload changes its fields (breaks host programs)",
                "VORLINK_ALARM_STATUS_DATA_SIZE: changed from 14 to 16 (breaks firmware sources)",
                "struct vorlink_alarm_status_data: member alarmsFlags changed from uint16_t to uint32_t "
                "(breaks firmware sources)"]),
            "renamed": (edited("alarmsFlags:U16", "alarmFlags:U16"), [
                "AlarmStatusData.alarmFlags: renamed from alarmsFlags (breaks JSON readers)",
                "struct vorlink_alarm_status_data: member alarmsFlags renamed to alarmFlags (breaks firmware sources)"]),
            "removed": (edited(f"14  {status}", "10  alarmState:U32 alarmTop:U32 alarmsFlags:U16"), [
                "AlarmStatusData.silenceExpiresIn: removed from byte 8 (breaks the nodes)",
                "AlarmStatusData.alarmsFlags: moved from byte 12 to byte 8 (breaks the nodes)",
                "AlarmStatusData: payload size changed from 14 to 10 bytes (breaks the nodes)",
                "AlarmStatusData.silenceExpiresIn: removed (number 4) (breaks schema readers)",
                "AlarmStatusData.alarmsFlags: number changed from 5 to 4 (breaks schema readers)",
                "AlarmStatusData: record AlarmStatusDataPayload changes its fields (breaks host programs)",
                "VORLINK_ALARM_STATUS_DATA_SIZE: changed from 14 to 10 (breaks firmware sources)",
                "struct vorlink_alarm_status_data: member silenceExpiresIn removed (breaks firmware sources)"]),
            "retyped": (edited("almData1:U32 ", "almData1:F32 "), [
                "AlarmTriggered.almData1: retyped from U32 to F32 (breaks the nodes)",
                "AlarmTriggered.almData1: type changed from uint32 to float (breaks schema readers)",
                "AlarmTriggered: record AlarmTriggeredPayload changes its fields (breaks host programs)",
                "struct vorlink_alarm_triggered: member almData1 changed from uint32_t to float (breaks firmware sources)"]),
            "held as a bool": (edited("almData1:U32 ", "almData1:U32=bool "), [
                "AlarmTriggered.almData1: type changed from uint32 to bool (breaks JSON readers)"]),
            "row removed": (re.sub(r"\n0x0300 .*", "", RELEASED), [
                "AlarmCleared: row 0x0300 removed (breaks the nodes)",
                "AlarmCleared: message removed (breaks schema readers)",
                "AlarmCleared: record AlarmClearedPayload and its overloads removed (breaks host programs)",
                "VORLINK_ALARM_CLEARED_ID: removed (breaks firmware sources)",
                "VORLINK_ALARM_CLEARED_SIZE: removed (breaks firmware sources)",
                "struct vorlink_alarm_cleared: removed, with vorlink_alarm_cleared_pack(), "
                "vorlink_alarm_cleared_unpack() (breaks firmware sources)"]),
            "id changed": (edited("0x0400  MSG_ID_ALARM_CONDITION_CLEARED", "0x0401  MSG_ID_ALARM_CONDITION_CLEARED"), [
                "AlarmConditionCleared: id changed from 0x0400 to 0x0401 (breaks the nodes)",
                "VORLINK_ALARM_CONDITION_CLEARED_ID: changed from 0x0400 to 0x0401 (breaks firmware sources)"]),
            "message renamed": (re.sub(r"MSG_ID_ALARM_CLEARED\s+AlarmCleared ", "MSG_ID_ALARM_GONE AlarmGone ", RELEASED), [
                "AlarmCleared: message renamed to AlarmGone (breaks schema readers)",
                "AlarmCleared: record AlarmClearedPayload renamed to AlarmGonePayload (breaks host programs)",
                "VORLINK_ALARM_CLEARED_ID: removed (breaks firmware sources)",
                "VORLINK_ALARM_CLEARED_SIZE: removed (breaks firmware sources)",
                "struct vorlink_alarm_cleared: removed, with vorlink_alarm_cleared_pack(), "
                "vorlink_alarm_cleared_unpack() (breaks firmware sources)"]),
            "numbers shifted by a oneof": (edited("event:U32 ", "event:U32+data0 ", "TdEvent"), [
                f"TdEvent.{name}: number changed from {n} to {n + 4} (breaks schema readers)" for name, n in
                [("dataType1", 3), ("data1_bool", 4), ("data1_uint32", 5), ("data1_int32", 6), ("data1_float", 7),
                 ("dataType2", 8), ("data2_bool", 9), ("data2_uint32", 10), ("data2_int32", 11), ("data2_float", 12)]]),
            "oneof changed": (edited("+data2", "+data3", "FpEvent"), [
                f"FpEvent.data3_{t}: {what} (breaks {reader})" for t in ("bool", "uint32", "int32", "float")
                for what, reader in ((f"renamed from data2_{t}", "JSON readers"),
                                     ("oneof changed from data2 to data3", "schema readers"))]),
        }
        for case, (rows, expected) in cases.items():
            with self.subTest(case):
                self.assertCountEqual(self.run_check(rows).lines(), expected)

    def test_additions_pass_and_are_listed(self):
        report = self.run_check(re.sub(r"\n0xB900 .*\n", lambda m: m[0] + NEW_ROW, RELEASED))
        self.assertEqual(report.lines(), [])
        self.assertEqual(report.additions, ["0xBA00 UiNewThing: new row, 4 bytes",
                                            "zelko.messages.UiNewThing: new schema message"])
        schema = gen.proto(gen.parse_rows(os.path.join(BASELINE, compat.ROWS)))
        report = compat.Report()
        compat.compare_schema(compat.descriptors(schema), compat.descriptors(schema + "message Extra {\n}\n"), {},
                              report)
        self.assertEqual((report.lines(), report.additions), ([], ["zelko.messages.Extra: new schema message"]))

    def test_a_release_that_keeps_its_firmware_header_is_held_to_it(self):
        with tempfile.TemporaryDirectory() as tmp:
            baseline = os.path.join(tmp, "1.0.0")
            shutil.copytree(BASELINE, baseline)
            header = gen.firmware_h(gen.parse_rows(os.path.join(BASELINE, compat.ROWS)))
            with open(os.path.join(baseline, compat.FIRMWARE_HEADER), "w", encoding="utf-8") as f:
                f.write(header.replace("    uint16_t alarmsFlags;", "    uint32_t alarmsFlags;"))
            self.assertEqual(self.run_check(RELEASED, baseline=baseline).lines(), [
                "struct vorlink_alarm_status_data: member alarmsFlags changed from uint32_t to uint16_t "
                "(breaks firmware sources)"])

    def test_an_edit_of_the_committed_schema_counts(self):
        schema = gen.proto(gen.parse_rows(os.path.join(BASELINE, compat.ROWS)))
        edit = schema.replace("uint32 alarmsFlags = 5;", "uint32 alarmsFlags = 6;")
        self.assertEqual(self.run_check(RELEASED, schema=edit).lines(), [
            f"AlarmStatusData.alarmsFlags: in the committed {compat.SCHEMA}, number changed from 5 to 6 "
            "(breaks schema readers)"])

    def test_symbols_file_losing_a_released_symbol(self):
        with gzip.open(SYMBOLS, "rt", encoding="utf-8") as f:
            lines = f.read().splitlines(True)
        with tempfile.NamedTemporaryFile("w", suffix=".symbols") as thinner:
            thinner.writelines(lines[:5] + lines[6:])
            thinner.flush()
            self.assertEqual(self.run_check(RELEASED, symbols=thinner.name).lines(), [
                f"{os.path.basename(thinner.name)}: 1 symbols of the release left out, the first "
                f"{lines[5].split()[0]} (breaks host programs)"])

    def test_command_fails_unless_the_major_version_is_raised(self):
        with tempfile.TemporaryDirectory() as tmp:
            rows = os.path.join(tmp, compat.ROWS)
            with open(rows, "w", encoding="utf-8") as f:
                f.write(edited("alarmsFlags:U16", "alarmFlags:U16"))
            def run(version):
                return subprocess.run([sys.executable, os.path.join(ROOT, "scripts", "compat"), "--rows", rows,
                                       "--schema", os.path.join(BASELINE, compat.SCHEMA), "--version", version,
                                       "--baseline", BASELINE], capture_output=True, text=True)
            same, raised = run("1.4.0"), run("2.0.0")
        self.assertEqual(same.returncode, 1, same.stdout + same.stderr)
        self.assertIn("FAILED: release 1.0.0 is broken by 2 breaking changes.", same.stdout)
        self.assertEqual(raised.returncode, 0, raised.stdout + raised.stderr)
        self.assertIn("becomes libVorlink.so.2, its package libvorlink2", raised.stdout)


class Symbols(unittest.TestCase):
    def check(self, template):
        with tempfile.TemporaryDirectory() as tmp:
            return subprocess.run([sys.executable, os.path.join(ROOT, "scripts", "symbols"), "check", LIBRARY,
                                   template, "1.0.0-1", os.path.join(tmp, "symbols")], capture_output=True, text=True)

    def test_the_library_keeps_its_symbols_and_a_lost_one_fails(self):
        kept = self.check(SYMBOLS)
        self.assertEqual(kept.returncode, 0, kept.stderr)
        with gzip.open(SYMBOLS, "rt", encoding="utf-8") as f:
            head, *rest = f.read().splitlines(True)
        with tempfile.NamedTemporaryFile("w", suffix=".symbols") as more:
            more.writelines([head, " _ZNK5zelko16AlarmGonePayload4dumpEv@Base 1.0.0\n"] + rest)
            more.flush()
            r = self.check(more.name)
        self.assertEqual(r.returncode, 1)
        self.assertIn("zelko::AlarmGonePayload::dump() const no longer exported (breaks host programs)", r.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
