"""The offers of bash, zsh and fish at a prompt."""

import re

import pytest

import request_table
from shells import Offer, bash, bash_list, fish, words, zsh

SHELLS = [bash, zsh, fish]

# Word and description of every advertised command: the first sentence of its help line, without its full stop.
COMMANDS = sorted((command["word"], command["help"].split(". ")[0].rstrip(".")) for command in request_table.COMMANDS
                  if command["help"])


def description(option):
    """The help line without the option's names and without the list of its arguments."""
    text = re.fullmatch(r" +-./--[\w-]+(?:=<.*?>)?[ :]+(.*?) ?", option["help"])[1]
    return re.split(r" \((?=\d:|example:)", text)[0]


# Letter, long name and description of every option.
OPTIONS = [(option["letter"], option["name"], description(option)) for option in request_table.OPTIONS]

WORK_ITEMS = sorted(request_table.WORK_ITEMS)

NUMBERS = {
    ("-d", "--decom-mode"): [("0", "noAction"), ("1", "ensureAcces"), ("2", "evacAllData")],
    ("-r", "--reason"): [("0", "none"), ("1", "disable dedup"), ("2", "enable encryption"),
                         ("3", "disable dedup and enforce encryption")],
    ("-m", "--recovery-mode"): [("1", "REPAIR"), ("2", "REBALANCE"), ("3", "COMPLIANCE"), ("4", "POLICY"),
                                ("5", "CONCAT"), ("6", "DELTA"), ("7", "ALL, except DELTA")],
    ("-X", "--exclusion-mode"): [("0", "applicable to all new components"), ("1", "ignoreForWitness"),
                                 ("2", "ignoreForNewPlacement"), ("3", "ignoreForWitnessAndNewPlacement")],
}

# An option, the separator before its argument, and the numbers offered there.
NUMBER_CASES = [(option, separator, numbers) for names, numbers in NUMBERS.items() for option in names
                for separator in ([" ", "="] if option.startswith("--") else [" "])]

# Options with a free argument: neither a file name nor one of a list of words or numbers.
FREE = [option for option in request_table.OPTIONS if option["argument"] not in (None, "str")
        and not re.search(r"\d:", option["help"])]

# The requests' tests check their meanings.
CALLBACK_WORDS = ["add", "delete", "disk", "node", "object", "update"]

all_shells = pytest.mark.parametrize("shell", SHELLS)
describing_shells = pytest.mark.parametrize("shell", [zsh, fish])


def values(offers, option):
    """The offered words. fish offers a value after `--option=` together with the option."""
    return [word.removeprefix(option + "=") for word in words(offers)]


@all_shells
def test_advertised_commands(shell):
    assert sorted(words(shell("plax-tool "))) == [word for word, _ in COMMANDS]


@describing_shells
def test_descriptions_of_commands(shell):
    assert sorted(shell("plax-tool ")) == [Offer(*command) for command in COMMANDS]


@all_shells
def test_begun_command(shell):
    assert sorted(words(shell("plax-tool sta"))) == [
        "start-decom-state-heartbeat", "start-proactive-rebalance", "stats"]


@all_shells
@pytest.mark.parametrize("word", ["fitness-config", "get-object-last", "get-obj-decom", "nonsense"])
def test_unlisted_and_unknown_commands(shell, word):
    assert shell(f"plax-tool {word}") == []


@all_shells
@pytest.mark.parametrize("before", ["", "stats ", "-a stats "])
def test_options(shell, before):
    # zsh offers no option twice.
    given = {"-a", "--all"} if shell is zsh and before.startswith("-a") else set()
    names = {f"-{letter}" for letter, _, _ in OPTIONS} | {f"--{long_name}" for _, long_name, _ in OPTIONS}
    offered = words(shell(f"plax-tool {before}-"))
    assert sorted(offered) == sorted(names - given)


# Only zsh looks at the options that were given.
@pytest.mark.parametrize("before", ["-h ", "-h -", "--help ", "--help -", "stats -h -", "-h stats "])
def test_nothing_after_a_call_for_help(before):
    assert zsh(f"plax-tool {before}") == []


@all_shells
def test_begun_long_option(shell):
    assert sorted(words(shell("plax-tool --exclusion"))) == ["--exclusion-list", "--exclusion-mode"]


@describing_shells
def test_descriptions_of_options(shell):
    expected = [Offer(f"-{letter}", text) for letter, _, text in OPTIONS]
    expected += [Offer(f"--{long_name}", text) for _, long_name, text in OPTIONS]
    assert sorted(shell("plax-tool -")) == sorted(expected)


@all_shells
@pytest.mark.parametrize("before", ["-o ", "-s ", "-f ", "--output-path ", "--socket-path ", "--file-path ",
                                    "--output-path=", "--socket-path=", "--file-path=",
                                    "stats -o ", "-ao ", "-weas ", "-m 1 -f ", "-- -o ", "-o x --socket-path="])
def test_file_names(shell, before):
    option = before.split(" ")[-1].removesuffix("=")
    offered = [word.removesuffix("/") for word in values(shell(f"plax-tool {before}"), option)]
    # After "--", "-o" is a word: the command, though an unknown one.
    assert offered == ([] if before.startswith("-- ") else ["answer.txt", "answers"])


@all_shells
def test_begun_file_name(shell):
    assert words(shell("plax-tool -o answer.")) == ["answer.txt"]


@all_shells
@pytest.mark.parametrize("before", ["-i ", "--work-item ", "--work-item=", "enable-workitem -i ", "-ai "])
def test_work_items(shell, before):
    assert sorted(values(shell(f"plax-tool {before}"), "--work-item")) == WORK_ITEMS


@all_shells
def test_begun_work_item(shell):
    assert sorted(words(shell("plax-tool -i M"))) == ["MANUAL_MOVE", "MOVE"]


@all_shells
@pytest.mark.parametrize("option, separator, numbers", NUMBER_CASES)
def test_numbers(shell, option, separator, numbers):
    offered = shell(f"plax-tool {option}{separator}")
    assert values(offered, option) == [number for number, _ in numbers]
    if shell is not bash:
        assert [offer.description for offer in offered] == [meaning for _, meaning in numbers]


@pytest.mark.parametrize("option, separator, numbers", NUMBER_CASES)
def test_bash_lists_numbers_with_their_meanings(option, separator, numbers):
    assert bash_list(f"plax-tool {option}{separator}") == [f"{number}  {meaning}" for number, meaning in numbers]


@all_shells
@pytest.mark.parametrize("option", [form for option in FREE
                                    for form in ("-" + option["letter"], "--" + option["name"])])
def test_arguments_that_nobody_can_guess(shell, option):
    assert shell(f"plax-tool {option} ") == []


@all_shells
@pytest.mark.parametrize("command", [word for word, _ in COMMANDS
                                     if word not in ("start-proactive-rebalance", "block-cdb-cb")])
def test_no_second_word(shell, command):
    # Only the daemon knows the levels of log-level.
    assert shell(f"plax-tool {command} ") == []


@all_shells
@pytest.mark.parametrize("before, offered", [
    ("", ["default"]),
    ("3600 0.3 ", ["default"]),
    ("default default default ", ["default"]),
    ("1 2 3 4 ", []),
    ("-a ", ["default"]),
])
def test_words_of_start_proactive_rebalance(shell, before, offered):
    assert words(shell(f"plax-tool start-proactive-rebalance {before}")) == offered


@all_shells
@pytest.mark.parametrize("before, offered", [
    ("", CALLBACK_WORDS),
    ("add ", CALLBACK_WORDS),
    ("add disk ", []),
    ("d", ["delete", "disk"]),
])
def test_words_of_block_cdb_cb(shell, before, offered):
    assert sorted(words(shell(f"plax-tool block-cdb-cb {before}"))) == offered


@all_shells
@pytest.mark.parametrize("before", ["-o stats ", "--output-path=stats ", "--output-path stats ", "-ostats ", "-s a:b ",
                                    """-j '{"a": 1}' """, "-aw ", "-- ", "-m 1 --work-item MOVE "])
def test_command_after_options(shell, before):
    assert words(shell(f"plax-tool {before}fitn")) == ["fitness-stats-get"]


@all_shells
@pytest.mark.parametrize("before", ["-o out stats ", "-- stats ", "stats -o out ", "stats --socket-path=x "])
def test_no_command_after_a_command(shell, before):
    assert shell(f"plax-tool {before}fitn") == []


@all_shells
@pytest.mark.parametrize("option", request_table.OPTIONS, ids=lambda option: option["name"])
def test_which_options_take_an_argument(shell, option):
    # The first word after an option is its argument. Otherwise it is the command, and nothing more is offered.
    expected = ["fitness-stats-get"] if option["argument"] else []
    for form in ("-" + option["letter"], "--" + option["name"]):
        assert words(shell(f"plax-tool {form} fix-concats fitn")) == expected


def test_numbers_of_every_option_that_takes_one_of_some():
    assert list(NUMBERS) == [("-" + option["letter"], "--" + option["name"])
                             for option in request_table.OPTIONS if re.search(r"\d:", option["help"])]
