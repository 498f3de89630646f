// A restart: what the file holds, and which ports go on from it.
#include "engine.h"

#include "lac_resume.h"
#include "lac_resume_file.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace
{

constexpr char FRAME_STATE = '\x3D';

class Resume : public testing::Test
{
  protected:
    Resume() { lacResumeFile(path); }
    ~Resume() override
    {
        lacResumeBegin(false); // nothing is kept any more
        std::filesystem::remove_all(folder);
    }

    // A daemon that serves port 1 in group 1 and ends.
    void serve()
    {
        Engine engine;
        arrange("SERVING");
        lacResumeBegin(false);
        Engine::send(LAC_Q_RESUME);
        Engine::dispatch();
        served = lacResumeNow();
        engine.wire.take();
        Engine::send(LAC_Q_STOP);
        Engine::dispatch();
        EXPECT_EQ(engine.wire.take().size(), 1U) << "its last word";
    }
    // The next one, with port 1 in its group again; what its machines, its partner and the switch see of it.
    std::string start(const std::string &changed)
    {
        Engine engine;
        lacResumeBegin(true);
        engine.running_port(1);
        arrange(changed.starts_with("hears") ? "" : changed);
        if (changed.starts_with("hears"))
            act(changed);
        Engine::tick(9); // the configuration takes its time
        fake::take_messages();
        engine.wire.take();
        Engine::send(LAC_Q_RESUME);
        Engine::dispatch();
        std::string seen = Engine::port(1).member_written == 1 ? "goes on" : "anew";
        for (const SentFrame &frame : engine.wire.take())
            seen += frame.actor().state == FRAME_STATE ? " told" : " told something else";
        for (const fake::Message &message : fake::take_messages())
            seen += message.at(7) == SCLIENT_MSG_TRUNK_CREATE ? request_text(message) : "";
        return seen;
    }
    std::function<void()> age(long seconds) const
    {
        return [this, seconds] {
            const timespec times[] = {{time(nullptr) - seconds, 0}, {time(nullptr) - seconds, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        };
    }
    std::function<void()> amend(void (*change)(LacResume &))
    {
        return [this, change] { change(served), lacWriteResume(path, served); };
    }
    std::function<void()> flip(std::size_t at) const
    {
        return [this, at] {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            const char was = static_cast<char>(file.seekg(static_cast<long>(at)).get());
            file.seekp(static_cast<long>(at)).put(static_cast<char>(was ^ 1));
        };
    }

    LacResume served{};
    std::string folder = [] {
        std::string name = testing::TempDir() + "resume.XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
    std::string path = folder + "/lacpd.resume";
};

constexpr char GOES_ON[] = "goes on told create:1,9,1,1";

TEST_F(Resume, WhatFitsGoesOn)
{
    for (const char *changed : {"", "hears", "hears state=3f", "prio=8000"}) {
        serve();
        EXPECT_EQ(start(changed), GOES_ON) << changed;
    }
    for (const char *changed :
         {"hears key=9",    "hears no=9",     "hears sp=9",    "hears prio=9",  "hears sys=OTHER",
          "hears state=35", "hears state=39", "hears v.key=9", "group=2",       "lacp=0",
          "up=0 rx=6",      "rx=3",           "key=9",         "prio=7",        "asp=7",
          "no=2",           "actor=84",       "actor=87",      "sys.mac=OTHER", "attached=1"}) {
        serve();
        EXPECT_EQ(start(changed), "anew") << changed;
    }
}

// A partner that is not heard is taken for unchanged as long as it waits for us: here for 90 seconds.
TEST_F(Resume, FilesThatAreNotUsed)
{
    serve();
    age(89)();
    EXPECT_EQ(start(""), GOES_ON);
    const std::pair<std::function<void()>, const char *> damages[] = {
        {age(92), "0 of 1 member ports go on"},
        {[this] { truncate(path.c_str(), 10); }, "cut short"},
        {[this] { truncate(path.c_str(), LAC_RESUME_SIZE - 1); }, "damaged"},
        {[this] { std::ofstream(path, std::ios::app) << 'x'; }, "damaged"},
        {flip(LAC_RESUME_SIZE - 1), "damaged"},
        {flip(0), "another kind"},
        {flip(8), "version"},
        {[this] { std::filesystem::remove(path), std::filesystem::create_symlink("/etc/passwd", path); }, "symbolic"},
        {[this] { std::filesystem::remove(path), mkfifo(path.c_str(), 0600); }, "cut short"},
        {[this] { std::filesystem::remove(path); }, ""},
        {amend([](LacResume &r) { r.boot[3] ^= 1; }), "it is of another boot"},
        {amend([](LacResume &r) { r.inventory.last_uplink_port = 8; }), "it is of other ports"},
        {amend([](LacResume &r) { r.inventory.first_uplink_port = 2; }), "it is of other ports"},
        {amend([](LacResume &r) { r.system[5] ^= 1; }), "it is of another System ID"},
        {amend([](LacResume &r) { r.ports[7].group = 5; }), "it is damaged"},
    };
    for (const auto &[damage, reason] : damages) {
        serve();
        damage();
        std::string seen;
        const std::string said = printed([&] { seen = start(""); });
        EXPECT_EQ(seen, "anew") << reason;
        EXPECT_EQ(has(said, "links form anew"), *reason != 0 && *reason != '0') << reason;
        EXPECT_TRUE(has(said, reason)) << said;
    }
}

} // namespace
