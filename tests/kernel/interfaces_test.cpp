// SPDX-License-Identifier: MIT
// Which interfaces apply and stop take, against a real kernel: those that have left the file, those
// that are missing or come later, those of a folder at boot.
#include "transaction.h"

namespace {

using namespace guest;

constexpr char boot_folder[] = "/etc/mordel";

string of_both(const string &a, const string &b)
{
    return for_interface(two_classes, a) + for_interface(two_classes, b);
}

void expect_shaped(const string &name)
{
    EXPECT_TRUE(has(tree_of(name), "class htb 1:11 ")) << tree_of(name);
    EXPECT_TRUE(has(rules_of(name), "--dscp 0x2e")) << rules_of(name);
}

bool is_shaped(const string &name) { return has(tree_of(name), "class htb 1:11 "); }

TEST(Interfaces, OneThatHasLeftTheFileIsNamedAndPruned)
{
    const string stays = make_interface();
    const string goes = make_interface();
    const string other = make_interface();
    const string file = policy_file(of_both(stays, goes));
    apply_file(file);
    apply_file(policy_file(for_interface(two_classes, other)));
    write_file(file, for_interface(two_classes, stays));

    const result named = mordel({"apply", file});
    EXPECT_EQ(0, named.status) << named.err;
    const string word = goes + ": no longer in the policy, still shaped";
    EXPECT_TRUE(has(named.out + named.err, word)) << named.out << named.err;
    EXPECT_FALSE(has(named.out + named.err, other + ": no longer")) << named.out << named.err;
    expect_shaped(goes);

    const result pruned = mordel({"apply", "--prune", file});
    EXPECT_EQ(0, pruned.status) << pruned.err;
    expect_shaped(stays);
    expect_default(goes);
    expect_shaped(other);  // of another file
    const result again = mordel({"apply", file});
    EXPECT_FALSE(has(again.out + again.err, "no longer in the policy")) << again.out << again.err;
    expect_nothing_left();
}

// A later step's failure brings the pruned one back.
TEST(Interfaces, APrunedOneIsPartOfTheTransaction)
{
    const string stays = make_interface();
    const string goes = make_interface();
    const string file = policy_file(of_both(stays, goes));
    apply_file(file);
    const string before = everything();
    write_file(file, edited(for_interface(two_classes, stays)));
    const auto positions = [&] {
        (void)mordel_with({.at = never}, {"apply", "--prune", file});
        return static_cast<unsigned>(std::atoi(file_text(count_file).c_str()));
    }();
    write_file(file, of_both(stays, goes));
    apply_file(file);
    expect_as(before, "there and back");
    write_file(file, edited(for_interface(two_classes, stays)));
    ASSERT_LT(4U, positions);
    for (const unsigned n : {2U, positions - 1}) {
        const result r = mordel_with({.at = n, .refuse = true}, {"apply", "--prune", file});
        EXPECT_TRUE(fired());
        EXPECT_EQ(1, r.status);
        expect_as(before, r.err);
    }
}

TEST(Interfaces, AreStoppedByNameOrAll)
{
    const string a = make_interface();
    const string b = make_interface();
    const string c = make_interface();
    apply_file(policy_file(of_both(a, b)));
    apply_file(policy_file(for_interface(two_classes, c)));
    const result one = mordel({"stop", a});
    EXPECT_EQ(0, one.status) << one.err;
    expect_default(a);
    expect_shaped(b);
    expect_shaped(c);
    const result all = mordel({"stop", "--all"});
    EXPECT_EQ(0, all.status) << all.err;
    for (const string &name : {a, b, c}) expect_default(name);
    std::error_code none;
    for (const auto &file : fs::directory_iterator(state_folder, none))
        EXPECT_EQ(own_lock, file.path()) << file.path();
}

TEST(Interfaces, OneThatIsMissingLeavesTheOthersAlone)
{
    const string a = make_interface();
    const string b = make_interface();
    const string file =
        policy_file(for_interface(two_classes, a) + for_interface(two_classes, "q999") +
                    for_interface(two_classes, b));
    const string before = everything();
    const result r = mordel({"apply", file});
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "q999")) << r.err;
    expect_as(before, "one file is one transaction");

    const result going_on = mordel({"apply", "--keep-going", file});
    EXPECT_EQ(1, going_on.status);
    EXPECT_TRUE(has(going_on.err, "q999")) << going_on.err;
    expect_shaped(a);
    expect_shaped(b);
    expect_nothing_left();
}

TEST(Interfaces, OneThatFailsIsTakenBackAloneWhenItIsToKeepGoing)
{
    const string a = make_interface();
    const string b = make_interface();
    const string file = policy_file(of_both(a, b));
    apply_file(file);
    const string a_before = state_of(a);
    const string b_before = state_of(b);
    const string new_file = policy_file(edited(of_both(a, b)));
    const result r =
        mordel_with({.at = 2, .refuse = true}, {"apply", "--keep-going", "--json", new_file});
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(a_before, state_of(a));
    EXPECT_NE(b_before, state_of(b));
    expect_told(r, a + ": " + brought_back);
    EXPECT_EQ(2U, r.parsed().value("interfaces", json::array()).size());
    expect_nothing_left();
}

TEST(Interfaces, OneThatComesLaterIsWaitedFor)
{
    const string q = "late0";
    const string file = policy_file(for_interface(two_classes, q));
    const result impatient = mordel({"apply", "--wait-interface", "1", file});
    EXPECT_EQ(1, impatient.status);
    EXPECT_TRUE(has(impatient.err, q)) << impatient.err;
    remove_notes();
    program waiting(command_line({"apply", "--wait-interface", "60", file}), "", spied());
    (void)::sleep(1);
    EXPECT_TRUE(waiting.running());
    by_hand("ip link add " + q + " type ifb; ip link set " + q + " up");
    const result r = waiting.end(60);
    EXPECT_EQ(0, r.status) << r.err;
    expect_shaped(q);
    (void)mordel({"stop", file});
    by_hand("ip link del " + q);
}

TEST(Interfaces, AreAppliedAtBoot)
{
    const string a = make_interface();
    const string b = make_interface();
    fs::remove_all(boot_folder);
    fs::create_directories(boot_folder);
    write_file(string(boot_folder) + "/10-one.toml",
               for_interface(two_classes, "q998") + for_interface(two_classes, a));
    write_file(string(boot_folder) + "/20-two.toml", for_interface(two_classes, b));
    write_file(string(boot_folder) + "/30-three.toml.old", "no policy");
    const result r = mordel({"apply", "--boot"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out + r.err, "q998")) << r.out << r.err;
    expect_shaped(a);
    expect_shaped(b);
    // As a hook for a new interface does it
    by_hand("ip link add q998 type ifb; ip link set q998 up");
    const result later = mordel({"apply", "--boot", "--interface", "q998"});
    EXPECT_EQ(0, later.status) << later.err;
    EXPECT_TRUE(is_shaped("q998"));
    (void)mordel({"stop", "q998"});
    by_hand("ip link del q998");
    fs::remove_all(boot_folder);
}

// A good policy alone is put among those of boot.
TEST(Interfaces, APolicyIsSavedForBootWhenItIsInForce)
{
    const string q = make_interface();
    fs::remove_all(boot_folder);
    const string file = policy_file(for_interface(two_classes, q));
    const auto saved = [] {
        std::error_code none;
        string all;
        for (const auto &entry : fs::directory_iterator(boot_folder, none))
            all += file_text(entry.path());
        return all;
    };
    EXPECT_EQ(1, mordel_with({.at = 2, .refuse = true}, {"apply", "--save", file}).status);
    EXPECT_EQ("", saved());
    const result r = mordel({"apply", "--save", file});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(file_text(file), saved());
    fs::remove_all(boot_folder);
}

// A saved policy has two paths: its own file, and that of the folder, which boot goes by.
TEST(Interfaces, OneThatHasLeftASavedPolicyIsNamedAndPruned)
{
    const string stays = make_interface();
    const string goes = make_interface();
    fs::remove_all(boot_folder);
    const string file = "/run/home.toml";
    write_file(file, of_both(stays, goes));
    apply_file(file, {"--save"});
    apply_file("--boot");
    write_file(file, for_interface(two_classes, stays));

    const result named = mordel({"apply", "--save", file});
    EXPECT_EQ(0, named.status) << named.err;
    expect_told(named, goes + ": no longer in the policy, still shaped");
    expect_shaped(goes);

    const result pruned = mordel({"apply", "--save", "--prune", file});
    EXPECT_EQ(0, pruned.status) << pruned.err;
    expect_shaped(stays);
    expect_default(goes);
    expect_nothing_left();
    fs::remove_all(boot_folder);
}

}  // namespace
