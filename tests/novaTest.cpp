// The parts of vestrel-server that need no network: forms, requests and the queue.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "server/jobQueue.h"
#include "server/libFormData.h"
#include "server/novaRequest.h"
#include "tests/skySupport.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

constexpr double degreesPerRadian = 57.29577951308232;

/// Bytes of which many look like ends of lines and of parts.
std::string HostileBytes(Random& random) {
    const std::string_view pieces[] = {"\r",  "\n", "\r\n", "-",    "--",
                                       "--b", "b",  "\0",   "x: y", "="};
    std::string bytes;
    for (int i = random.Whole(0, 12); i > 0; --i) {
        bytes += pieces[static_cast<std::size_t>(random.Whole(0, 9))];
    }
    return bytes;
}

struct MadeForm {
    std::string Body;
    std::vector<FormPart> Parts;
    std::vector<std::string> Contents;
};

MadeForm RandomForm(Random& random) {
    MadeForm form;
    const std::string lineEnd = random.Whole(0, 3) > 0 ? "\r\n" : "\n";
    if (random.Whole(0, 3) == 0) form.Body = "a preamble" + lineEnd;
    for (int i = random.Whole(0, 4); i > 0; --i) {
        std::string content = HostileBytes(random);
        // A boundary within a part, and a carriage return before a bare line feed, cannot be told
        // from the end of the part.
        if (("\n" + content).find("\n--b") != std::string::npos) content = "plain";
        if (lineEnd == "\n" && content.ends_with('\r')) content += '.';
        FormPart part;
        part.Name = i % 2 == 0 ? "file" : "request-json";
        if (i % 2 == 0) part.FileName = "m \"44\".fit";
        form.Body += "--b" + lineEnd + "X-Other: 1" + lineEnd +
                     "content-disposition: form-data; name=" +
                     (i % 3 == 0 ? part.Name : "\"" + part.Name + "\"");
        if (i % 2 == 0) form.Body += R"(; filename="C:\folder\m \"44\".fit")";
        form.Body += lineEnd + lineEnd + content + lineEnd;
        form.Parts.push_back(part);
        form.Contents.push_back(content);
    }
    form.Body += "--b--" + lineEnd;
    return form;
}

TEST(MultipartForms, AnyBytesComeBackAsTheyWereSent) {
    Random random(3);
    for (int trial = 0; trial < 3000; ++trial) {
        const MadeForm form = RandomForm(random);
        const auto parts = ParseMultipart(form.Body, "b");
        ASSERT_TRUE(parts) << form.Body;
        ASSERT_EQ(parts->size(), form.Parts.size()) << form.Body;
        for (std::size_t i = 0; i < parts->size(); ++i) {
            ASSERT_EQ((*parts)[i].Body, form.Contents[i]) << form.Body;
            ASSERT_EQ((*parts)[i].Name, form.Parts[i].Name);
            ASSERT_EQ((*parts)[i].FileName, form.Parts[i].FileName);
        }
        const std::size_t end = form.Body.rfind("--b--") + 5;
        const auto cut = static_cast<std::size_t>(random.Whole(0, static_cast<int>(end) - 1));
        ASSERT_FALSE(ParseMultipart(form.Body.substr(0, cut), "b")) << form.Body.substr(0, cut);
    }
}

TEST(MultipartForms, BoundaryIsReadInEveryForm) {
    EXPECT_EQ(BoundaryOf("multipart/form-data; boundary=abc"), "abc");
    EXPECT_EQ(BoundaryOf(" Multipart/Form-Data; charset=utf-8; Boundary=\"a b;c\""), "a b;c");
    EXPECT_EQ(BoundaryOf("multipart/form-data; xboundary=no; boundary=yes"), "yes");
    EXPECT_FALSE(BoundaryOf("multipart/form-data"));
    EXPECT_FALSE(BoundaryOf("multipart/mixed; boundary=abc"));
    EXPECT_FALSE(BoundaryOf(""));
}

TEST(UrlEncodedForms, EveryByteComesBack) {
    std::string all;
    std::string encoded;
    for (int byte = 0; byte < 256; ++byte) {
        const char* digits = byte % 2 == 0 ? "0123456789ABCDEF" : "0123456789abcdef";
        all += static_cast<char>(byte);
        encoded += std::string("%") + digits[byte / 16] + digits[byte % 16];
    }
    EXPECT_EQ(UrlEncodedField("a=1&request%2Djson=" + encoded + "&b=2", "request-json"), all);
    EXPECT_EQ(UrlEncodedField("f=a+b%2Bc=d", "f"), "a b+c=d");
    EXPECT_EQ(UrlEncodedField("f=%&g=%4&h=%zz%4", "f"), "%");
    EXPECT_EQ(UrlEncodedField("f=%&g=%4&h=%zz%4", "g"), "%4");
    EXPECT_EQ(UrlEncodedField("f=%&g=%4&h=%zz%4", "h"), "%zz%4");
    EXPECT_EQ(UrlEncodedField("f=&f=2", "f"), "");
    EXPECT_FALSE(UrlEncodedField("ff=1&f", "f"));
    EXPECT_FALSE(UrlEncodedField("", "f"));
}

SolverHints HintsIn(const std::string& json) {
    std::string fault;
    const auto request = ParseNovaRequest(json, fault);
    EXPECT_TRUE(request) << fault;
    return request ? request->Hints : SolverHints();
}

TEST(NovaRequests, EveryWayToGiveTheSizeOfAField) {
    struct Case {
        const char* Json;
        std::optional<SolverRange> Scale;
        std::optional<SolverRange> Width;
    };
    for (const auto& [json, scale, width] : std::vector<Case>{
             {R"({"scale_units": "arcsecperpix", "scale_lower": 1, "scale_upper": 3})",
              SolverRange{1, 3},
              {}},
             {R"({"scale_units": "arcsecperpix", "scale_lower": 3, "scale_upper": "1"})",
              SolverRange{1, 3},
              {}},
             {R"({"scale_units": "arcsecperpix", "scale_lower": 3, "scale_upper": -1})",
              SolverRange{3, 3},
              {}},
             {R"({"scale_units": "arcsecperpix", "scale_upper": 2})", SolverRange{2, 2}, {}},
             {R"({"scale_units": "arcsecperpix", "scale_est": 2, "scale_err": 10})",
              SolverRange{1.8, 2.2},
              {}},
             {R"({"scale_units": "arcsecperpix", "scale_type": "ev", "scale_est": 2,
                  "scale_err": 300, "scale_lower": 5, "scale_upper": 6})",
              SolverRange{0.02, 8},
              {}},
             {R"({"scale_units": "arcminwidth", "scale_lower": 30, "scale_upper": 90})",
              {},
              SolverRange{0.5, 1.5}},
             {R"({"scale_units": "degwidth", "scale_est": 4})", {}, SolverRange{4, 4}},
             {R"({"scale_lower": 0.5, "scale_upper": 180})", {}, SolverRange{0.5, 180}},
             {R"({"scale_units": "arcsecperpix", "scale_est": 0, "scale_lower": "x"})", {}, {}},
             {R"({"scale_units": "arcsecperpix", "scale_lower": "1e999"})", {}, {}}}) {
        const SolverHints hints = HintsIn(json);
        for (const auto& [found, wanted] :
             {std::pair(hints.Scale, scale), std::pair(hints.FieldWidth, width)}) {
            ASSERT_EQ(found.has_value(), wanted.has_value()) << json;
            if (!wanted) continue;
            EXPECT_NEAR(found->Low, wanted->Low, 1e-12) << json;
            EXPECT_NEAR(found->High, wanted->High, 1e-12) << json;
        }
    }
}

TEST(NovaRequests, ListsOfStarsCountPixelsFromOne) {
    std::string fault;
    const auto request = ParseNovaRequest(
        R"({"x": [1, 600], "y": [1, 400.5], "image_width": 600, "image_height": 400})", fault);
    ASSERT_TRUE(request && request->Stars) << fault;
    EXPECT_EQ(request->Stars->Stars.at(0).X, 0);
    EXPECT_EQ(request->Stars->Stars.at(0).Y, 0);
    EXPECT_EQ(request->Stars->Stars.at(1).X, 599);
    EXPECT_EQ(request->Stars->Stars.at(1).Y, 399.5);
}

TEST(NovaRequests, CentresAndOrdersOutsideTheirRangesAreLeftOutOrHeld) {
    const SolverHints west = HintsIn(R"({"center_ra": -10, "center_dec": "-5.5"})");
    ASSERT_EQ(west.Centres.size(), 1U);
    EXPECT_EQ(west.Centres[0].Ra, 350);
    EXPECT_EQ(west.Centres[0].Dec, -5.5);
    EXPECT_EQ(west.Centres[0].Radius, 180);
    EXPECT_EQ(HintsIn(R"({"center_ra": 1, "center_dec": 2, "radius": 3})").Centres[0].Radius, 3);
    EXPECT_EQ(HintsIn(R"({"center_ra": 1, "center_dec": 2, "radius": 999})").Centres[0].Radius,
              180);
    for (const char* json : {R"({"center_ra": 361, "center_dec": 0})", R"({"center_ra": 10})",
                             R"({"center_ra": 10, "center_dec": -91})", R"({"center_dec": 1})"}) {
        EXPECT_TRUE(HintsIn(json).Centres.empty()) << json;
    }
    std::string fault;
    for (const auto& [json, order] :
         {std::pair(R"({"tweak_order": 0})", 0), std::pair(R"({"tweak_order": 1})", 0),
          std::pair(R"({"tweak_order": 2.7})", 2), std::pair(R"({"tweak_order": "99"})", 6),
          std::pair(R"({"tweak_order": -1})", 3), std::pair("{}", 3)}) {
        EXPECT_EQ(ParseNovaRequest(json, fault)->MostSipOrder, order) << json;
    }
    for (const char* json : {"", "[]", "{", "1", "{\"a\":}"}) {
        EXPECT_FALSE(ParseNovaRequest(json, fault)) << json;
    }
}

/// Waits for the end of a job, whatever the speed of the machine.
JobReport EndOf(const JobQueue& queue, int id) {
    while (true) {
        const auto job = queue.Find(id);
        if (!job) return {};
        if (job->State == JobState::Solved || job->State == JobState::Failed) return *job;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

/// The status with which a picture is refused; 0 when it is taken.
int StatusOf(JobQueue& queue, const std::string& picture) {
    try {
        EndOf(queue, queue.Submit({}, "x.fit", picture));
    } catch (const JobRefused& refusal) {
        return refusal.Status;
    }
    return 0;
}

TEST(JobQueue, RoomOfEndedAndRefusedPicturesIsGivenBack) {
    const TemporaryFolder folder;
    QueueSettings settings;
    settings.Folder = folder / "gone" / "spool";
    settings.CatalogFolder = TextFromPath(folder / "no catalog");
    settings.MostBytes = 1000;
    JobQueue queue(settings);
    const std::string picture(400, 'x');
    for (int i = 0; i < 5; ++i) EXPECT_EQ(StatusOf(queue, picture), 507) << "no folder to write to";
    std::filesystem::create_directory(settings.Folder.parent_path());
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(StatusOf(queue, std::string(1001, 'x')), 503) << i;
        EXPECT_EQ(StatusOf(queue, picture), 0) << i;
    }
    EXPECT_TRUE(std::filesystem::is_empty(settings.Folder));
    EXPECT_EQ(std::filesystem::status(settings.Folder).permissions(),
              std::filesystem::perms::owner_all);
    EXPECT_EQ(queue.Latest(100).size(), 20U) << "refused pictures are no jobs";

    settings.MostWaiting = 0;
    JobQueue full(settings);
    EXPECT_EQ(StatusOf(full, picture), 503);
}

TEST(JobQueue, OldCopiesMakeRoomForNewOnes) {
    const TemporaryFolder folder;
    const std::filesystem::path frame = folder / "frame.fit";
    QueueSettings settings;
    settings.Folder = folder / "spool";
    settings.CatalogFolder = TextFromPath(folder / "catalog");
    MakeSky(folder / "catalog", frame);
    std::filesystem::create_directory(settings.Folder);
    const std::string picture = ReadFile(frame);
    settings.MostBytes = picture.size() * 5 / 2;
    JobQueue queue(settings);
    std::string fault;
    const auto request = ParseNovaRequest(
        R"({"scale_units": "arcsecperpix", "scale_lower": 1.8, "scale_upper": 2.2, "center_ra": )" +
            std::to_string(centre.Ra * degreesPerRadian) + R"(, "center_dec": )" +
            std::to_string(centre.Dec * degreesPerRadian) + R"(, "radius": 0.2})",
        fault);
    ASSERT_TRUE(request) << fault;
    for (int number = 1; number <= 5; ++number) {
        ASSERT_EQ(queue.Submit(*request, "m 1.fit", picture), number);
        const JobReport job = EndOf(queue, number);
        ASSERT_EQ(job.State, JobState::Solved) << job.Log;
        ASSERT_TRUE(job.Calibration);
        EXPECT_NEAR(job.Calibration->Ra, centre.Ra * degreesPerRadian, 1e-3);
        EXPECT_NEAR(job.Calibration->Scale, scale, 1e-2);
        EXPECT_TRUE(job.NewFits.empty() || std::filesystem::exists(job.NewFits));
        std::uint64_t bytes = 0;
        for (const auto& file : std::filesystem::directory_iterator(settings.Folder)) {
            bytes += file.file_size();
        }
        EXPECT_LE(bytes, settings.MostBytes);
    }
    EXPECT_TRUE(queue.Find(1)->NewFits.empty());
    EXPECT_FALSE(queue.Find(1)->Wcs.empty()) << "the coordinates are kept";
}

}  // namespace
}  // namespace vestrel
