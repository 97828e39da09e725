#include "client/input/loss.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

// More than an input can note before a programme takes the losses over.
static constexpr size_t kNotedMax = 4000;

// Two losses of a kind this close to each other are one: time stamps are rounded.
static constexpr int64_t kContinuesUs = 15'000;

// The entries among which the last one of a kind is searched.
static constexpr size_t kLastEntries = 8;

struct kind_texts {
    const char *what, *done;
};

static constexpr const char *kLeftOut = "left out", *kKept = "kept";

// By loss_kind.
static constexpr kind_texts kTexts[] = {
    {"pictures missing", "the picture before stays on screen"},
    {"damaged pictures", kLeftOut},
    {"damaged pictures", kKept},
    {"the pictures end early", "the sound continues alone"},
    {"pictures that the component did not record", kLeftOut},
    {"damaged parameter sets", kLeftOut},
    {"sound missing", "filled with silence"},
    {"sound overlaps", kLeftOut},
    {"damaged sound", kLeftOut},
    {"damaged sound", kKept},
    {"the sound ends early", "the pictures continue alone"},
    {"sound that the component did not record", kLeftOut},
    {"the clock jumps", "closed"},
    {"the input broke off", "everything before is recorded"},
};
static_assert(std::size(kTexts) == kLossKinds);

// What a damaged packet of sound held is counted as missing where silence takes its place.
static constexpr loss_kind kMissingPictures[] = {
    loss_kind::pictures_missing, loss_kind::pictures_left_out, loss_kind::pictures_ended,
    loss_kind::pictures_unrecorded};
static constexpr loss_kind kMissingSound[] = {loss_kind::sound_missing, loss_kind::sound_overlaps,
                                              loss_kind::sound_ended, loss_kind::sound_unrecorded};

void loss_note(std::vector<loss> &noted, const loss &one)
{
    if (noted.size() < kNotedMax) {
        noted.push_back(one);
    }
}

static void add_to_totals(loss_account &account, const loss &one, bool is_new_place)
{
    loss_total &total = account.totals[static_cast<size_t>(one.kind)];
    total.places += is_new_place ? 1 : 0;
    total.units += one.units;
    total.length_us += one.length_us;
}

// returns: the entry that the loss continues, or null
static loss *find_continued(loss_account &account, const loss &one)
{
    if (one.kind == loss_kind::clock_jump) {
        return nullptr;
    }
    const size_t searched = std::min(account.entries.size(), kLastEntries);
    const auto end = account.entries.rbegin() + static_cast<ptrdiff_t>(searched);
    for (auto entry = account.entries.rbegin(); entry != end; entry++) {
        if (entry->kind == one.kind && entry->track == one.track) {
            const int64_t after_us = one.at_us - (entry->at_us + entry->length_us);
            return after_us <= kContinuesUs && one.at_us >= entry->at_us ? &*entry : nullptr;
        }
    }
    return nullptr;
}

void loss_account_add(loss_account &account, const loss &one)
{
    loss *const continued = find_continued(account, one);
    add_to_totals(account, one, continued == nullptr);
    if (continued != nullptr) {
        continued->length_us =
            std::max(continued->length_us, one.at_us + one.length_us - continued->at_us);
        continued->units += one.units;
    } else if (account.entries.size() < kLossesListed) {
        const auto is_later = [](int64_t at_us, const loss &entry) { return at_us < entry.at_us; };
        account.entries.insert(
            std::upper_bound(account.entries.begin(), account.entries.end(), one.at_us, is_later),
            one);
    } else {
        account.unlisted++;
    }
}

bool loss_account_is_complete(const loss_account &account)
{
    return account.entries.empty() && account.unlisted == 0;
}

// returns: the loss's end, also for a jump of the clock, which has no extent
static int64_t end_of(const loss &one)
{
    return one.kind == loss_kind::clock_jump ? one.at_us : one.at_us + one.length_us;
}

loss_account loss_account_of(const loss_account &account, int64_t begin_us, int64_t end_us)
{
    loss_account part;
    for (loss one : account.entries) {
        if (one.at_us >= end_us || end_of(one) < begin_us ||
            (end_of(one) == begin_us && one.at_us < begin_us)) {
            continue;
        }
        if (one.kind != loss_kind::clock_jump) {
            const int64_t last_us = std::min(end_of(one), end_us);
            one.at_us = std::max(one.at_us, begin_us);
            one.length_us = last_us - one.at_us;
        }
        one.at_us -= begin_us;
        loss_account_add(part, one);
    }
    const bool may_hold_more = account.entries.empty() || end_us > account.entries.back().at_us;
    if (may_hold_more) {
        loss_account_add_unlisted(part, account);
    }
    return part;
}

void loss_account_add_unlisted(loss_account &account, const loss_account &other)
{
    if (other.unlisted == 0) {
        return;
    }
    std::array<loss_total, kLossKinds> rest = other.totals;
    for (const loss &one : other.entries) {
        loss_total &total = rest[static_cast<size_t>(one.kind)];
        total.places--;
        total.units -= one.units;
        total.length_us -= one.length_us;
    }
    for (size_t kind = 0; kind < kLossKinds; kind++) {
        loss_total &total = account.totals[kind];
        total.places += rest[kind].places;
        total.units += rest[kind].units;
        total.length_us += rest[kind].length_us;
    }
    account.unlisted += other.unlisted;
}

void loss_account_forget(loss_account &account, int64_t until_us)
{
    loss_account rest;
    for (const loss &one : account.entries) {
        if (end_of(one) >= until_us) {
            loss_account_add(rest, one);
        }
    }
    account = std::move(rest);
}

loss_total loss_account_missing(const loss_account &account, loss_track track)
{
    loss_total sum;
    for (const loss_kind kind : track == loss_track::video ? kMissingPictures : kMissingSound) {
        const loss_total &total = account.totals[static_cast<size_t>(kind)];
        sum.places += total.places;
        sum.units += total.units;
        sum.length_us += total.length_us;
    }
    return sum;
}

const char *loss_verdict(const loss_account &account)
{
    return loss_account_is_complete(account) ? "complete" : "damaged";
}

const char *loss_what(loss_kind kind)
{
    return kTexts[static_cast<size_t>(kind)].what;
}

const char *loss_done(loss_kind kind)
{
    return kTexts[static_cast<size_t>(kind)].done;
}

const char *loss_track_name(loss_track track)
{
    return track == loss_track::video ? "video" : track == loss_track::audio ? "audio" : "both";
}

static void append(std::string &text, const std::string &part)
{
    text += (text.empty() ? "" : ", ") + part;
}

static void append_missing(std::string &text, const char *name, const loss_total &total)
{
    if (total.places > 0) {
        const bool is_short = total.length_us < 1'000'000;
        const double length = static_cast<double>(total.length_us) / (is_short ? 1e3 : 1e6);
        char part[96] = "";
        std::snprintf(part, sizeof part, "%s %.*f %s in %llu place%s", name, is_short ? 0 : 1,
                      length, is_short ? "ms" : "s", static_cast<unsigned long long>(total.places),
                      total.places == 1 ? "" : "s");
        append(text, part);
    }
}

std::string loss_account_text(const loss_account &account)
{
    static constexpr struct {
        loss_kind kind;
        const char *what;
    } kCounted[] = {
        {loss_kind::pictures_damaged, "damaged pictures kept: "},
        {loss_kind::sets_left_out, "damaged parameter sets left out: "},
        {loss_kind::sound_left_out, "damaged packets of sound left out: "},
        {loss_kind::sound_damaged, "damaged packets of sound kept: "},
        {loss_kind::clock_jump, "jumps of the clock closed: "},
    };
    std::string text;
    append_missing(text, "pictures", loss_account_missing(account, loss_track::video));
    append_missing(text, "sound", loss_account_missing(account, loss_track::audio));
    for (const auto &[kind, what] : kCounted) {
        const loss_total &total = account.totals[static_cast<size_t>(kind)];
        if (total.places > 0) {
            append(text, what + std::to_string(total.units > 0 ? total.units : total.places));
        }
    }
    if (account.totals[static_cast<size_t>(loss_kind::broken_off)].places > 0) {
        append(text, loss_what(loss_kind::broken_off));
    }
    return text;
}
