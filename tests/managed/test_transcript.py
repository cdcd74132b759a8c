"""What crosses the border to the agent's libraries, word for word: which entry point is called when
and with what, and every parameter of a call as it is encoded.
"""
import re
import shutil

import kit_path  # noqa: F401
from daemon_kit import BUILD, main, wait_for
from managed_kit import CONFIG_IN_ETC, ManagedTest

REPOSITORY = "createObject 1 0 - - -"
SOFTWARE = "12 LOGRELAY1000"
LEVELS = (("INFO", 1), ("WARN", 2), ("ERROR", 3), ("DEBUG", 4), ("DEBUG", 5), ("DEBUG", 0),
          ("DEBUG", 9))
REGISTERED = ["(INFO) LPC initialized", "(INFO) Registered IUpdateCallback",
              "(INFO) Registered IPropertyCollection", "(INFO) Registered IPolicyEnforcement",
              "(INFO) Registered IPolicyDataAccessor", "(INFO) Registered IPolicyDataAccessor"]


def text(value):
    return f"{len(value)} {value}"


def call(service, method, *arguments):
    return (service, "3 " + text("anyone"), "4 " + text(service), "5 " + text(method),
            *("2 " + argument for argument in arguments))


class Transcript(ManagedTest):
    agent_installed = False

    def install(self, *faults, script=(), answers=()):
        self.agent.mkdir()
        for library in ("libvlrlpc.so", "libvlrlpchelper.so.4"):
            shutil.copy(BUILD / "tests/recording_runtime.so", self.agent / library)
        for name, lines in (("script", script), ("answers", answers)):
            (self.agent / name).write_text("".join("\t".join(line) + "\n" for line in lines))
        for fault in faults:
            (self.agent / fault).touch()
        config = self.etc / CONFIG_IN_ETC
        config.parent.mkdir(parents=True)
        config.write_text(f"<a>\n<SharedLibLocation>\n{self.agent}\n</SharedLibLocation>\n</a>\n")

    def transcript(self):
        path = self.agent / "transcript"
        return path.read_text().splitlines() if path.exists() else []

    def run_daemon(self, last="script done", env=None):
        """One life of the daemon; returns its messages about the link."""
        self.configure(self.receiver().port, throttle=5)
        daemon = self.start(env=env)
        wait_for(lambda: last in self.transcript(), last)
        daemon.wait_log("Getting files from dir")  # the plugins run, so the start is over
        daemon.stop()
        messages = [re.sub(r"^.{20}:", "", line) for line in daemon.log().split("\n")]
        begin = next(i for i, line in enumerate(messages) if "LPC Process UID" in line)
        noise = re.compile(r"libruv|Getting files|Sent \d+ event|No events|^$")
        return [line for line in messages[begin:] if not noise.search(line)]

    def played(self, *script, answers=()):
        """Has the runtime play the script; returns what was answered and asked, and the log."""
        self.install(script=script, answers=answers)
        log = self.run_daemon()
        lines = self.transcript()
        # The thread that starts the services may still give the repository back meanwhile.
        between = lines[lines.index("registerAdaptor IPolicyEnforcement") + 1:
                        lines.index("script done")]
        return [line for line in between if line != "destroyObject repository"], log

    def test_the_entry_points_in_their_order(self):
        self.install()
        log = self.run_daemon()
        name = re.match(r"\(DEBUG\) LPC Process UID: (LOGRELAY1000:\d{2,}:0001)$", log[0]).group(1)
        lines = self.transcript()
        folder = re.match(rf"initializeLPCLib {name} (/\S+) mode 1 objects$", lines[3])
        self.assertTrue(folder, lines[3])
        lines.remove("script done")  # on a thread of its own
        self.assertEqual(lines, [
            "generatePassphraseAndSaveToRegistry LOGRELAY1000 64",
            "getVlrLpcLogger", "setGeneral", folder.group(0), "passphrase 1 abcdefghijklmnopqrst",
            "enableLPCLib", "getVlrLpcFactory",
            REPOSITORY, "registerAdaptor IUpdateCallback", "destroyObject repository",
            REPOSITORY, "registerAdaptor IPropertyCollection", "destroyObject repository",
            REPOSITORY, "registerAdaptor IPolicyEnforcement", "destroyObject repository",
            "disableLPCLib", "deinitializeLPCLib", "unloaded", "unloaded"])
        self.assertEqual(log[1:], [
            "(DEBUG) Initializing LPC",
            f"(INFO) Successfully loaded LPC runtime {self.agent}/libvlrlpc.so",
            *(f"({word}) level {level}" for word, level in LEVELS), *REGISTERED,
            "(INFO) Started updater service", "(INFO) Started property collection service",
            "(INFO) Started policy enforcement service", "(INFO) Shut down intiated",
            "(INFO) Calling shutdown on plugin: 0",
            f"(INFO) Filetail shutdown called: {self.input}/", "(INFO) DeInitializing LPC",
            f"(INFO) Successfully released LPC runtime {self.agent}/libvlrlpc.so"])

    def test_the_update_callback(self):
        service = "IUpdateCallback"
        answers, log = self.played(
            call(service, "GetProductInfo", SOFTWARE, text("Version"), text("old")),
            call(service, "GetProductInfo", SOFTWARE, text("Location"), text("old")),
            call(service, "GetProductInfo", SOFTWARE, text("version"), text("")),
            call(service, "UpdateNotify", SOFTWARE, text("a"), text(""), "77"),
            call(service, "SetProductInfo", SOFTWARE, text("a b"), text("c")),
            call(service, "isRunning"), call(service, "abort"), call(service, "getInterfaceId"))
        self.assertEqual(answers, [
            "answer -1\t1 0\t2 5 9.1.3", "answer -1\t1 0\t2 3 old", "answer -1\t1 1\t2 0 ",
            "answer -1\t1 0\t2 77", "answer -1\t1 0", "answer -1\t1 0", "answer -1\t1 0",
            "answer 1"])
        begin = log.index("(INFO) IUpdateCallback_Servant_Impl::GetProductInfo")
        self.assertEqual([line for line in log[begin:] if "Started" not in line][:8], [
            "(INFO) IUpdateCallback_Servant_Impl::GetProductInfo",
            "(INFO) Requesting for content version",
            "(INFO) IUpdateCallback_Servant_Impl::GetProductInfo",
            "(INFO) IRequesting the content location",
            "(INFO) IUpdateCallback_Servant_Impl::GetProductInfo", "(INFO) Unknown request",
            "(INFO) IUpdateCallback_Servant_Impl::UpdateNotify method getting called",
            "(INFO) IUpdateCallback_Servant_Impl::SetProductInfo method getting called"])

    def test_the_property_collection(self):
        service = "IPropertyCollection"
        answers, _ = self.played(
            call(service, "isSoftwareExists", text("")),
            call(service, "collectProperties", "0", "0"),
            call(service, "collectProperties", "1", "1 7 General 1 8 Language 2 ff"))
        pairs = [line.split("=", 1) for line in self.conf_path.read_text().splitlines()]
        config = f"6 Config {len(pairs)} " + " ".join(text(k) + " " + text(v) for k, v in pairs)
        version = re.search(r"szProductVer (\d+ \d+\.\d+\.\d+\.\d+) ", answers[1]).group(1)
        self.assertEqual(answers, [
            "answer -1\t1 1",
            f"answer -1\t1 1\t2 2 7 General 2 12 szProductVer {version} 8 Language 4 0000 {config}",
            f"answer -1\t1 1\t2 2 7 General 2 8 Language 2 ff 12 szProductVer {version} {config}"])

    def read_policy(self):
        """What the collector asks the agent for, with its answers to be."""
        accessor = "AGENT IPolicyDataAccessor"
        names = "\t3 5 AGENT\t4 19 IPolicyDataAccessor\t5 "
        return [
            f"createObject 3 0 {accessor} getPolicyObjectContainer",
            f"invoke 1 0{names}24 getPolicyObjectContainer\t2 {SOFTWARE}\t2 0",
            "destroyObject connector",
            f"createObject 3 0 {accessor} getAllPolicySections",
            f"invoke 1 0{names}20 getAllPolicySections\t2 7 feature\t2 8 category\t2 4 type"
            "\t2 7 setting\t2 -3\t2 4 text\t2 0",
            "destroyObject connector"]

    def test_a_policy(self):
        def enforce(accessor):
            return call("IPolicyEnforcement", "enforcePolicy", SOFTWARE, accessor)

        agent = "1 19 IPolicyDataAccessor 5 AGENT"
        objects = ("-1", "1 1", "2 1 7 feature 8 category 4 type 4 name 1 7 setting -3 4 text")
        answers, log = self.played(
            enforce("0"), enforce("1 7 INobody 5 AGENT"), enforce(agent), enforce(agent),
            enforce(agent),
            call("IPolicyEnforcement", "enforceUserPolicy", SOFTWARE, text("u"), text("d"),
                 "18446744073709551615", "3", agent),
            answers=[
                objects, ("-1", "1 1", "2 1 12 LOGRELAY1000 1 9 Tail Mode 5 begin"),
                objects, ("4",),
                objects, ("-1", "1 1", "2 1 12 LOGRELAY1000 2 9 Tail Mode 3 end"
                                       " 15 Event Delimeter 0 ")])
        done = "answer -1\t1 1"
        self.assertEqual(answers, [done, done, *3 * [*self.read_policy(), done], done])
        begin = log.index("(INFO) Enforce Policy called")
        log = [line for line in log[begin:] if "Started" not in line]
        expected = [
            "(INFO) Enforce Policy called", "(ERROR) accessor object null",
            "(DEBUG) Unregistered interface",
            "(INFO) Enforce Policy called", "(ERROR) accessor object null",
            "(INFO) Enforce Policy called", "(DEBUG) \tSection Name: LOGRELAY1000",
            "(DEBUG) \tSetting for name: Tail Mode = begin",
            "(DEBUG) Values match(ft_start_top): 1",
            "(DEBUG) No policy update, configs are identical",
            "(INFO) Enforce Policy called",
            "(ERROR) Exception in Policy Enforcement: Operation timed out",
            "(INFO) Enforce Policy called", "(DEBUG) \tSection Name: LOGRELAY1000",
            "(DEBUG) \tSetting for name: Tail Mode = end", "(WARN) Updated 'ft_start_top': 0",
            "(DEBUG) \tSetting for name: Event Delimeter = ",
            "(WARN) Updated 'ft_delim': [newline]",
            "(WARN) Updating local configuration, 2 descrepancies.",
            *(f"(INFO) {line}" for line in self.conf_path.read_text().split("\n")[:-1])]
        self.assertEqual(log[:len(expected)], expected)
        self.assertEqual(expected[-3:], [
            "(INFO) ft_delim=[newline]", "(INFO) ft_start_top=0", "(INFO) "])

    def failed(self, fault, *asked):
        """The messages between the loading of the library and the end of a daemon without it."""
        self.install(fault)
        log = self.run_daemon("unloaded")
        lines = [re.sub(r"Lib .*", "Lib", line) for line in self.transcript()]
        self.assertEqual(lines, [
            "generatePassphraseAndSaveToRegistry LOGRELAY1000 64", "getVlrLpcLogger", "setGeneral",
            "initializeLPCLib", *asked, "unloaded", "unloaded"])
        return log[3 + len(LEVELS):log.index("(INFO) Shut down intiated")]

    def test_a_runtime_that_refuses(self):
        self.assertEqual(self.failed("refuse", "passphrase 1 abcdefghijklmnopqrst"),
                         ["(ERROR) Initializing LPC failed"])

    def test_a_runtime_that_throws(self):
        self.assertEqual(self.failed("throw"), ["(DEBUG) the runtime's own words",
                                                "(ERROR) Initializing LPC failed"])

    def without_services(self, *faults, why=()):
        """A daemon whose services cannot be started; returns its messages from its end on."""
        self.install("no logger", *faults)
        # The servants of a failed start are leaked.
        options = self.sanitizer_environment()["ASAN_OPTIONS"] + ":detect_leaks=0"
        log = self.run_daemon("getVlrLpcFactory", {"ASAN_OPTIONS": options})
        self.assertNotIn("setGeneral", self.transcript())
        why = [*why, "(DEBUG) Unable to access LPC repository, please check LPC runtime"]
        end = log.index("(INFO) Shut down intiated")
        self.assertEqual(log[3:end], [
            *REGISTERED, *why, "(ERROR) Unable to run the updater service",
            *why, "(ERROR) Unable to run the property collection service",
            *why, "(ERROR) Unable to run the policy enforcement service"])
        self.assertEqual(self.transcript()[-4:],
                         ["disableLPCLib", "deinitializeLPCLib", "unloaded", "unloaded"])
        return log[end:]

    def test_a_runtime_without_objects(self):
        self.without_services("no factory")

    def test_a_runtime_that_throws_from_then_on(self):
        words = "(DEBUG) the runtime's own words"
        log = self.without_services("throw later", why=[words])
        self.assertEqual(log[log.index("(INFO) DeInitializing LPC"):], [
            "(INFO) DeInitializing LPC", words, words,
            f"(INFO) Successfully released LPC runtime {self.agent}/libvlrlpc.so"])


if __name__ == "__main__":
    main()
