// Bundles: they can be solved again with the same outcome, and hostile ones do no harm.

#include <gtest/gtest.h>

#include <numbers>

#include "platform/libZipFile.h"
#include "program/mBundle.h"
#include "program/mImageData.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

class Bundles : public testing::Test {
 protected:
    void SetUp() override {
        const auto stars = MakeSky(folder_ / "catalog", folder_ / "frame.fit");
        WriteQuadTables(folder_ / "catalog", stars, 40, 0.003, 0.006);
        // The programs write temporary files to $TMPDIR.
        std::filesystem::create_directory(folder_ / "temporary");
        SetVariable("TMPDIR", folder_ / "temporary");
    }
    void TearDown() override {
        EXPECT_TRUE(std::filesystem::is_empty(folder_ / "temporary")) << "nothing is left behind";
        UnsetVariable("TMPDIR");
    }

    /// Solves the frame and bundles it.
    BundledOutcome Make(const std::filesystem::path& path, const SearchRequest& request,
                        bool pixels = false) {
        ProgramState state;
        RecordingPort port(state);
        state.Catalog.Folder = folder_ / "catalog";
        EXPECT_TRUE(OpenImage(state, port, TextFromPath(folder_ / "frame.fit")));
        PlanReport plan;
        const SolveCode code = SolveByPlan(state, port, request, plan);
        WriteBundle(path, state, request, plan, code, pixels);
        return OutcomeOf(state, code, plan);
    }

    /// The outcome of a bundle on a machine that has neither the picture nor the catalog.
    static BundledOutcome Replay(const Bundle& bundle, const std::filesystem::path& quads) {
        ProgramState state;
        RecordingPort port(state);
        state.Catalog.Folder = quads;
        const SearchRequest request = bundle.Prepare(state);
        PlanReport plan;
        const SolveCode code = SolveByPlan(state, port, request, plan);
        return OutcomeOf(state, code, plan);
    }

    static SearchRequest Around(SkyPosition place, double size) {
        const double field = size * side * scale / 3600 * std::numbers::pi / 180;
        SearchRequest request;
        request.Around = {{place, field, field, 4}};
        return request;
    }

    TemporaryFolder folder_;
};

TEST_F(Bundles, WhatWasSolvedOrFailedDoesSoAgainWithoutPictureAndCatalog) {
    SearchRequest blind;
    blind.Everywhere = true;
    blind.Diagonals = {std::sqrt(2.0) * side * scale / 3600 * std::numbers::pi / 180};
    const SkyPosition beside{centre.Ra + 0.002, centre.Dec - 0.0005};
    int solved = 0;
    for (const SearchRequest& request :
         {Around(beside, 1), Around(beside, 1.3), Around(centre, 6), blind}) {
        const auto path = folder_ / "one.zip";
        const BundledOutcome outcome = Make(path, request);
        solved += outcome.Code == SolveCode::Solved ? 1 : 0;
        const Bundle bundle(path);
        EXPECT_TRUE(bundle.Outcome() == outcome);
        EXPECT_EQ(bundle.Picture(), "frame.fit");
        ProgramState state;
        const SearchRequest again = Bundle(path).Prepare(state);
        EXPECT_EQ(again.Everywhere, request.Everywhere);
        EXPECT_EQ(again.Diagonals, request.Diagonals);
        EXPECT_EQ(again.TimeLimit, request.TimeLimit);
        EXPECT_EQ(again.Around.size(), request.Around.size());
        EXPECT_TRUE(Replay(bundle, folder_ / "catalog") == outcome);
        const bool needsTables = request.Everywhere;
        EXPECT_TRUE(needsTables || Replay(bundle, folder_ / "nowhere") == outcome);
    }
    EXPECT_GE(solved, 2);
}

TEST_F(Bundles, PixelsGoInOnlyWhenAsked) {
    const auto has = [&](bool pixels) {
        Make(folder_ / "one.zip", Around(centre, 1), pixels);
        const auto entries = ReadZip(folder_ / "one.zip");
        return std::any_of(entries.begin(), entries.end(), [&](const ZipEntry& entry) {
            return entry.Name == "picture/image.fit" &&
                   entry.Bytes == ReadFile(folder_ / "frame.fit");
        });
    };
    EXPECT_FALSE(has(false));
    EXPECT_TRUE(has(true));
}

TEST_F(Bundles, HostileOnesAreRefusedAndWriteNowhere) {
    const auto path = folder_ / "one.zip";
    Make(path, Around(centre, 1));
    const auto entries = ReadZip(path);
    for (const char* name : {"cells/../../escaped", "cells//tmp/escaped", "cells/", "cells/a.b",
                             "cells/..", "cells/\\escaped"}) {
        auto more = entries;
        more.push_back({name, "x"});
        WriteZip(folder_ / "evil.zip", more);
        EXPECT_THROW(Bundle{folder_ / "evil.zip"}, std::runtime_error) << name;
    }
    EXPECT_FALSE(std::filesystem::exists(folder_ / "escaped"));
    // A small file that unpacks to a large one, and very many small files.
    ZipLimits small;
    small.MostBytes = 100000;
    WriteZip(folder_ / "bomb.zip", {{"a", std::string(200000, 'x')}});
    EXPECT_THROW(ReadZip(folder_ / "bomb.zip", small), ZipFault);
    small.MostEntries = entries.size() - 1;
    EXPECT_THROW(ReadZip(path, small), ZipFault);
    // Values with which no search can start.
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"\"width\": 300", "\"width\": 1e300"},
             {"\"width\": 300", "\"width\": null"},
             {"\"regions\": 4", "\"regions\": 4e9"},
             {"\"bundle\": 1", "\"bundle\": 2"},
             {"\"lists\": [", "\"lists\": [[[1e30, 0, 1]],"},
             {"{", std::string(100000, '[')}}) {
        auto changed = entries;
        const std::size_t place = changed[0].Bytes.find(from);
        ASSERT_NE(place, std::string::npos) << from;
        changed[0].Bytes.replace(place, from.size(), to);
        WriteZip(folder_ / "evil.zip", changed);
        EXPECT_THROW(Bundle{folder_ / "evil.zip"}, std::runtime_error) << to.substr(0, 40);
    }
    // Any damage gives a bundle or a sentence.
    const std::string good = ReadFile(path);
    for (std::uint32_t seed = 1; seed <= 150; ++seed) {
        WriteFile(folder_ / "damaged.zip", Damaged(good, seed, good.size()));
        try {
            const Bundle bundle(folder_ / "damaged.zip");
        } catch (const std::runtime_error& fault) {
            EXPECT_FALSE(std::string(fault.what()).empty());
        }
    }
}

/// Every key of a JSON text, with the rest of its line.
std::vector<std::pair<std::size_t, std::size_t>> ValuesOf(const std::string& json) {
    std::vector<std::pair<std::size_t, std::size_t>> values;
    for (std::size_t at = 0; (at = json.find("\": ", at)) != std::string::npos;) {
        at += 3;
        std::size_t end = json.find_first_of("\n", at);
        if (json[end - 1] == ',') --end;
        values.emplace_back(at, end);
    }
    return values;
}

TEST_F(Bundles, CutShortOrWithoutAMemberOrOfAnotherTypeAreRefused) {
    const auto path = folder_ / "one.zip";
    Make(path, Around(centre, 1));
    const std::string whole = ReadFile(path);
    for (std::size_t length = 0; length < whole.size(); length += 1 + whole.size() / 60) {
        WriteFile(folder_ / "cut.zip", whole.substr(0, length));
        EXPECT_THROW(Bundle{folder_ / "cut.zip"}, std::runtime_error) << length;
    }
    const auto entries = ReadZip(path);
    ASSERT_EQ(entries[0].Name, "bundle.json");
    const std::string& good = entries[0].Bytes;
    const auto values = ValuesOf(good);
    EXPECT_GT(values.size(), 30U);
    int refused = 0;
    for (const auto& [from, to] : values) {
        if (good[to - 1] == '{' || good[to - 1] == '[') continue;  // goes on in the next line
        for (const std::string other : {"[[1]]", "{}", "\"1e\"", "-1e999", "null", "true"}) {
            auto changed = entries;
            changed[0].Bytes.replace(from, to - from, other);
            WriteZip(folder_ / "evil.zip", changed);
            try {
                const Bundle bundle(folder_ / "evil.zip");
            } catch (const std::runtime_error& fault) {
                EXPECT_FALSE(std::string(fault.what()).empty());
                ++refused;
            }
        }
        // Without the member under this name.
        auto renamed = entries;
        renamed[0].Bytes[from - 4] ^= 1;
        WriteZip(folder_ / "evil.zip", renamed);
        const std::string name = good.substr(good.rfind('\n', from) + 1, from - 3);
        const bool optional = name.find("program") != std::string::npos ||
                              name.find("cards") != std::string::npos ||
                              name.find("attempts") != std::string::npos ||
                              name.find("size_remembered") != std::string::npos;  // added later
        if (optional) continue;
        EXPECT_THROW(Bundle{folder_ / "evil.zip"}, std::runtime_error) << name;
    }
    EXPECT_GT(refused, 100);
    EXPECT_THROW(Bundle{folder_ / "no such.zip"}, std::runtime_error);
    WriteZip(folder_ / "evil.zip", {{"cells/N00R03", "x"}});
    EXPECT_THROW(Bundle{folder_ / "evil.zip"}, std::runtime_error) << "no main entry";
}

}  // namespace
}  // namespace vestrel
