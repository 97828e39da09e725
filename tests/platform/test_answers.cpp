#include "tests/platform/framework_test.h"

#include <map>

namespace {

using Command = std::pair<OMX_U32, OMX_U32>; // OMX_COMMANDTYPE and its parameter

constexpr Command kCommands[] = {
    {OMX_CommandPortDisable, 0},
    {OMX_CommandPortDisable, OMX_ALL},
    {OMX_CommandPortEnable, 0},
    {OMX_CommandPortEnable, OMX_ALL},
    {OMX_CommandFlush, 0},
    {OMX_CommandStateSet, OMX_StateIdle},
    {OMX_CommandStateSet, OMX_StateLoaded},
    {OMX_CommandStateSet, OMX_StateExecuting},
    {OMX_CommandStateSet, OMX_StateInvalid},
};

// One component, whose client sends commands in a row and counts the answers.
class Session : public FrameworkTest {
  public:
    // in: is_disabled: port 0 is disabled and has no buffers
    void run(OMX_STATETYPE from, bool is_disabled, std::initializer_list<Command> commands)
    {
        bring_to(from);
        if (is_disabled) {
            ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
            free_buffers(0);
            expect_complete(OMX_CommandPortDisable, 0);
        }
        for (const Command &command : commands) {
            send_counted(command);
        }
        // A command without an answer waits for buffers to come or go.
        wait_until([&] { return count_answers() >= wanted || change_buffers(); });
        send_counted({OMX_CommandFlush, 1}); // answered after everything else
        wait_until([&] { return count_answers() >= wanted; });
        EXPECT_EQ(count_answers(), wanted);
        for (const auto &[command, answers_left] : completes_left) {
            EXPECT_GE(answers_left, 0) << command.first << " " << command.second;
        }
        client.destroy();
    }

  private:
    void TestBody() override
    {
    }

    // A command for all ports has an answer for each.
    void send_counted(const Command &command)
    {
        if (send(static_cast<OMX_COMMANDTYPE>(command.first), command.second) != OMX_ErrorNone) {
            EXPECT_TRUE(is_invalid);
            return;
        }
        const bool is_for_all = command.second == OMX_ALL && !is_invalid;
        for (OMX_U32 port = 0; port < (is_for_all ? kPortCount : 1); port++) {
            completes_left[{command.first, is_for_all ? port : command.second}]++;
            wanted++;
        }
        is_invalid = is_invalid || command == Command{OMX_CommandStateSet, OMX_StateInvalid};
    }

    size_t count_answers()
    {
        for (; events_seen < client.events().size(); events_seen++) {
            const IlEvent event = client.events().at(events_seen);
            if (event.event == OMX_EventCmdComplete) {
                completes_left[{event.data1, event.data2}]--;
            }
            // That a port lost its buffers is not an answer.
            answers += event.data1 != OMX_ErrorPortUnpopulated ? 1 : 0;
        }
        return answers;
    }

    // returns: false
    bool change_buffers()
    {
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            free_buffers(port);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        for (OMX_U32 port = 0; port < kPortCount; port++) {
            while (allocate(port) == OMX_ErrorNone) {
            }
        }
        return false;
    }

    bool is_invalid = false; // or will be
    size_t wanted = 0;
    size_t answers = 0;
    std::map<Command, int> completes_left;
};

class Answers : public PlatformTest,
                public testing::WithParamInterface<std::tuple<OMX_STATETYPE, bool>> {};

// Every sequence of three commands.
TEST_P(Answers, EachCommandGetsOne)
{
    const auto &[from, is_disabled] = GetParam();
    for (const Command &first : kCommands) {
        for (const Command &second : kCommands) {
            for (const Command &third : kCommands) {
                Session().run(from, is_disabled, {first, second, third});
                ASSERT_FALSE(HasFailure())
                    << testing::PrintToString(std::array{first, second, third});
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachState, Answers,
                         testing::Combine(testing::Values(OMX_StateLoaded, OMX_StateIdle,
                                                          OMX_StateExecuting),
                                          testing::Bool()));

} // namespace
