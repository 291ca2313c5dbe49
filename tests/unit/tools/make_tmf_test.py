"""Tests of make_tmf.py: run with the folder of the script as the first argument."""

import os
import pathlib
import re
import sys
import tempfile
import unittest

sys.path.insert(0, sys.argv.pop(1))
import make_tmf  # noqa: E402

GUID = "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e01"
HEAD = f'TRACE_SOURCE("folder\\\\src\\\\name", "{GUID}",\n             trace::kSharedTools);\n'


class MakeTmf(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = pathlib.Path(self.folder.name)
        self.output = self.path / "tmf"

    def make(self, *texts):
        sources = []
        for i, text in enumerate(texts):
            source = self.path / f"source{i}.cpp"
            source.write_text(text)
            sources.append(source)
        make_tmf.make(self.output, sources)
        return (self.output / f"{GUID}.tmf").read_text()

    def error_of(self, *texts):
        with self.assertRaises(make_tmf.SourceError) as caught:
            self.make(*texts)
        return str(caught.exception)

    def test_message_is_described_with_its_arguments(self):
        text = self.make(HEAD + 'TRACE_ERROR(10, "%S is %d%% of %llx, %p %s", a, b, c, d, e);\n')
        self.assertEqual(
            text,
            f"{GUID} name // SRC=name.cpp MJ= MN=\n"
            '#typev name_cpp3 10 "%0%10!s! is %11!d!%% of %12!I64x!, %13!p! %14!s!" //   LEVEL=2 FLAGS=0x1\n'
            "{\nArg, ItemWString -- 10\nArg, ItemLong -- 11\nArg, ItemULongLong -- 12\nArg, ItemPtr -- 13\n"
            "Arg, ItemString -- 14\n}\n",
        )

    def test_levels_and_flags(self):
        head = HEAD.replace("kSharedTools", "kLogDeviceConfiguration")
        text = self.make(head + 'TRACE_WARNING(10, "w"); TRACE_INFO(11, "i"); TRACE_VERBOSE(12, "v");')
        for level in (3, 4, 5):
            self.assertIn(f"LEVEL={level} FLAGS=0x8", text)

    def functions_of(self, text):
        return re.findall(r"\bFUNC=(.*)", self.make(HEAD + text))

    def test_function_of_a_trace_point_is_told_in_full(self):
        self.assertEqual(self.functions_of("""
namespace space {
namespace {
int Free(int a) { return a; }
void Helper(const char* s = "){", char c = '{') noexcept {
    TRACE_INFO(10, "a");
}
}  // namespace
Class::Class(int a) : base_(a), list_{} {
    if (a > 0) {
        for (;;) TRACE_INFO(11, "b");
    }
    const auto lambda = [&](int x) { TRACE_INFO(12, "c"); };
}
Class::~Class() { TRACE_INFO(13, "d"); }
std::vector<int> Class::List() const { TRACE_INFO(14, "e"); }
struct Inner : Base {
    bool operator()(int a) { TRACE_INFO(15, "f"); }
};
}  // namespace space
extern "C" DWORD WINAPI Exported(void) { try { TRACE_INFO(16, "g"); } catch (...) { TRACE_INFO(17, "h"); } }
"""), ["space::Helper", "space::Class::Class", "space::Class::Class", "space::Class::~Class", "space::Class::List",
            "space::Inner::operator()", "Exported", "Exported"])

    def test_trace_point_outside_of_functions_has_none(self):
        self.assertNotIn("FUNC", self.make(HEAD + 'TRACE_INFO(10, "a");'))

    def test_text_may_stand_on_several_lines(self):
        text = self.make(HEAD + 'TRACE_INFO(10,\n  "one "\n  "two",\n  f(a, b));')
        self.assertIn('"%0one two"', text)

    def test_commented_trace_points_are_none(self):
        text = self.make(HEAD + '// TRACE_INFO(10, "old");\n/* TRACE_INFO(11, "older"); */ TRACE_INFO(12, "http://x");')
        self.assertNotIn(" 10 ", text)
        self.assertNotIn(" 11 ", text)
        self.assertIn('12 "%0http://x"', text)

    def test_files_without_traces_are_passed_over(self):
        self.make(HEAD, "int main() {}\n")
        self.assertEqual(len(list(self.output.iterdir())), 1)

    def test_files_of_vanished_sources_are_removed(self):
        self.output.mkdir()
        old = self.output / "11111111-2222-3333-4444-555555555555.tmf"
        old.write_text("old")
        self.make(HEAD)
        self.assertFalse(old.exists())

    def write_build(self, commit):
        header = self.path / "build_info.h"
        header.write_text(f'#define TESSA_VERSION "1.2.3"\n#define TESSA_VERSION_TEXT "V1"  // x "y"\n'
                          f'#define TESSA_COMMIT "{commit}"\n#define TESSA_BUILD_DATE "a date"\n')
        source = self.path / "source.cpp"
        source.write_text(HEAD)
        self.assertEqual(make_tmf.main([self.output, header, source]), 0)
        return (self.output / "build.txt").read_text()

    def test_build_stands_beside_the_files(self):
        self.assertEqual(self.write_build("c1"), "version V1\ncommit c1\ndate a date\n")

    def test_another_build_touches_only_what_is_another(self):
        self.write_build("c1")
        for file in self.output.iterdir():
            os.utime(file, (1000, 1000))
        self.write_build("c1")
        self.assertEqual({file.stat().st_mtime for file in self.output.iterdir()}, {1000})
        self.assertIn("commit c2\n", self.write_build("c2"))
        touched = [file.name for file in self.output.iterdir() if file.stat().st_mtime != 1000]
        self.assertEqual(touched, ["build.txt"])

    def test_header_without_a_build_is_refused(self):
        header = self.path / "build_info.h"
        header.write_text('#define TESSA_VERSION_TEXT "V1"\n#define TESSA_COMMIT ""\n')
        with self.assertRaisesRegex(make_tmf.SourceError, "build_info.h: there is no TESSA_COMMIT"):
            make_tmf.write_build(self.path, header)

    def test_mistakes_name_file_and_line(self):
        self.assertRegex(self.error_of(HEAD + 'TRACE_INFO(10, "a");\nTRACE_INFO(10, "b");'), r"source0\.cpp:4: .*twice")
        self.assertRegex(self.error_of(HEAD + 'TRACE_INFO(9, "a");'), r":3: .*begin at 10")
        self.assertRegex(self.error_of(HEAD + "TRACE_INFO(10, text);"), r":3: .*string literal")
        self.assertRegex(self.error_of(HEAD + 'TRACE_INFO(10, "%f", x);'), r":3: .*unknown conversion %f")
        self.assertRegex(self.error_of('TRACE_INFO(10, "a");\n' + HEAD), r":1: .*TRACE_SOURCE above")
        self.assertRegex(self.error_of(HEAD.replace("kSharedTools", "kOther")), r":1: .*unknown channel")
        self.assertRegex(self.error_of(HEAD, HEAD), r"source1\.cpp: its message GUID is that of .*source0\.cpp")


if __name__ == "__main__":
    unittest.main()
