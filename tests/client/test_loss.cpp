// The account of what a recording misses.
#include "client/input/loss.h"

#include <gtest/gtest.h>

static constexpr int64_t kPictureUs = 40'000;

static loss pictures(loss_kind kind, int64_t at_us, unsigned units)
{
    return {loss_track::video, kind, at_us, units * kPictureUs, units};
}

static loss_account account_of(std::initializer_list<loss> losses)
{
    loss_account account;
    for (const loss &one : losses) {
        loss_account_add(account, one);
    }
    return account;
}

TEST(LossAccount, JoinsOnlyWhatContinuesALossOfItsKind)
{
    const loss_account account = account_of({
        pictures(loss_kind::pictures_left_out, 1'000'000, 1),
        pictures(loss_kind::pictures_damaged, 1'040'000, 1),
        pictures(loss_kind::pictures_left_out, 1'041'000, 2), // rounded
        pictures(loss_kind::pictures_left_out, 1'200'000, 1),
        {loss_track::both, loss_kind::clock_jump, 1'100'000, -5'000'000, 0},
        {loss_track::both, loss_kind::clock_jump, 1'100'000, 9'000'000, 0},
    });
    ASSERT_EQ(account.entries.size(), 5u);
    EXPECT_EQ(account.entries[0].units, 3u);
    EXPECT_EQ(account.entries[0].length_us, 121'000);
    EXPECT_EQ(account.entries[2].kind, loss_kind::clock_jump);
    EXPECT_EQ(account.entries[4].at_us, 1'200'000);
    EXPECT_EQ(loss_account_missing(account, loss_track::video).places, 2u);
    EXPECT_EQ(loss_account_missing(account, loss_track::audio).places, 0u);
    EXPECT_EQ(loss_account_text(account), "pictures 160 ms in 2 places, damaged pictures kept: 1, "
                                          "jumps of the clock closed: 2");
}

TEST(LossAccount, IsCutOutByTimeAndStaysBounded)
{
    loss_account account;
    for (int64_t i = 0; i < 1500; i++) {
        loss_account_add(account,
                         {loss_track::audio, loss_kind::sound_missing, i * 1'000'000, 500'000, 0});
    }
    EXPECT_EQ(account.entries.size(), kLossesListed);
    EXPECT_EQ(loss_account_missing(account, loss_track::audio).length_us, 1500 * 500'000);

    const loss_account part = loss_account_of(account, 10'200'000, 13'100'000);
    ASSERT_EQ(part.entries.size(), 4u);
    EXPECT_EQ(part.entries[0].at_us, 0);
    EXPECT_EQ(part.entries[0].length_us, 300'000);
    EXPECT_EQ(part.entries[3].at_us, 2'800'000);
    EXPECT_EQ(part.entries[3].length_us, 100'000);
    EXPECT_TRUE(loss_account_is_complete(loss_account_of(account, 10'500'000, 10'900'000)));
    EXPECT_FALSE(loss_account_is_complete(loss_account_of(account, 1'200'000'000, 1'300'000'000)));

    const loss_account whole = loss_account_of(account, 0, 1'500'000'000);
    EXPECT_EQ(loss_account_missing(whole, loss_track::audio).length_us, 1500 * 500'000);

    loss_account_forget(account, 900'000'000);
    EXPECT_TRUE(loss_account_is_complete(loss_account_of(account, 1'200'000'000, 1'300'000'000)));
    loss_account_add(account, pictures(loss_kind::pictures_missing, 1'600'000'000, 1));
    EXPECT_EQ(account.entries.front().at_us, 900'000'000);
    EXPECT_EQ(account.entries.back().kind, loss_kind::pictures_missing);
}
