// The catalog window: a catalog and its tables are built from it by the real program, as a process.
#include <sys/stat.h>

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <algorithm>
#include <fstream>

#include "desktop/fCatalog.h"
#include "matching/libQuadFile.h"
#include "tests/desktopSupport.h"
#include "tests/starSources.h"

namespace vestrel {
namespace {

class CatalogPage : public Windows {
 protected:
    CatalogPage() {
        // Sources that are installed on this machine are ignored.
        setenv("HOME", (Folder / "home").c_str(), 1);
        std::filesystem::create_directory(Folder / "home");
        std::filesystem::create_directory(Folder / "astap");
        std::vector<SkyStar> stars;
        for (const CatalogStar& star : Stars) {
            const double tenths = std::round(star.Mag / 10.0);
            stars.push_back({static_cast<double>(star.Ra), static_cast<double>(star.Dec),
                             std::max(tenths, -16.0) / 10});
        }
        std::sort(stars.begin(), stars.end(),
                  [](const SkyStar& a, const SkyStar& b) { return a.Mag < b.Mag; });
        WriteFile(Database(), AstapFile(stars, 5));
        UseCatalog(Folder / "made");
        Choose("Build Catalog...");
        Page = WindowNamed("fCatalog");
    }

    std::filesystem::path Database() const { return Folder / "astap" / "d05_0101.1476"; }
    void UseCatalog(const std::filesystem::path& folder) const {
        State->Catalog = {};
        State->Catalog.Folder = folder;
    }

    template <typename Control>
    Control* On(const char* name) const {
        Control* control = Page->findChild<Control*>(name);
        if (control == nullptr) throw std::runtime_error(std::string("no control ") + name);
        return control;
    }
    void Click(const char* name) const { QTest::mouseClick(On<QPushButton>(name), Qt::LeftButton); }
    /// A source in the database's folder, the only one that is ticked.
    void ChooseDatabase() {
        auto* sources = On<QListWidget>("lstCatalogSources");
        for (int row = 0; row < sources->count(); ++row) {
            sources->item(row)->setCheckState(Qt::Unchecked);
        }
        const int before = sources->count();
        Dialogs.FileToChoose = QtText((Folder / "astap").string());
        Click("cmdAddFolder");
        ASSERT_EQ(sources->count(), before + 1) << Status();
    }
    void WantTables(double from, double to) const {
        On<QDoubleSpinBox>("numSmallestField")->setValue(from);
        On<QDoubleSpinBox>("numLargestField")->setValue(to);
    }
    bool WaitForEnd() const {
        return QTest::qWaitFor([this] { return On<QPushButton>("cmdBuild")->isEnabled(); }, 60000);
    }
    std::string Status() const { return Utf8(On<QLabel>("lblBuild")->text()); }
    std::string Log() const { return Utf8(On<QPlainTextEdit>("txtBuildLog")->toPlainText()); }
    std::string Content() const {
        return Utf8(On<QPlainTextEdit>("txtCatalogContent")->toPlainText());
    }
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(Folder.Path)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    QWidget* Page = nullptr;
};

TEST_F(CatalogPage, BuildsFromADatabaseAndTheFrameIsSolvedWithIt) {
    ASSERT_NE(Page, nullptr);
    EXPECT_NE(Content().find("no such folder"), std::string::npos);
    EXPECT_FALSE(On<QPushButton>("cmdStopBuild")->isEnabled());
    ChooseDatabase();
    WantTables(18, 30);
    Click("cmdBuild");
    EXPECT_TRUE(On<QPushButton>("cmdStopBuild")->isEnabled());
    ASSERT_TRUE(WaitForEnd());
    EXPECT_EQ(Status(), "Done") << Log();
    EXPECT_EQ(On<QProgressBar>("prgBuild")->value(), 100);
    EXPECT_NE(Log().find("stars in " + (Folder / "made").string()), std::string::npos) << Log();
    EXPECT_NE(Content().find("Stars: " + std::to_string(Stars.size())), std::string::npos);
    EXPECT_NE(Content().find("diagonals of 18.00 to 30.0 degrees"), std::string::npos) << Content();
    EXPECT_TRUE(Find<QPushButton>("cmdMORA")->isVisible());

    Window->OpenFile(Frame);
    TypeSearch();
    Press("cmdMatch");
    EXPECT_TRUE(State->Solution);
}

TEST_F(CatalogPage, StopLeavesTheCatalogAsItWas) {
    UseCatalog(Folder / "catalog");
    const auto cells = [this] {
        std::string all;
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(Folder / "catalog")) {
            files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) all += file.filename().string() + ReadFile(file);
        return all;
    };
    const std::string before = cells();
    // A table that never ends.
    const std::filesystem::path pipe = Folder / "stars.csv";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::fstream open(pipe, std::ios::in | std::ios::out);
    open << "ra,dec,mag\n1,2,3\n" << std::flush;
    ChooseDatabase();
    const std::vector<std::string> entries = Entries();
    Dialogs.FileToChoose = QtText(pipe.string());
    Click("cmdAddTable");
    Click("cmdBuild");
    ASSERT_TRUE(QTest::qWaitFor([&] { return Entries().size() > entries.size(); }, 20000))
        << Status() << Log();
    Click("cmdStopBuild");
    ASSERT_TRUE(WaitForEnd());
    EXPECT_EQ(Status(), "Stopped. The catalog is as it was before") << Log();
    EXPECT_EQ(cells(), before);
    EXPECT_EQ(Entries(), entries);
}

TEST_F(CatalogPage, ADamagedSourceIsNamedAndNothingIsBuilt) {
    const std::string bytes = ReadFile(Database());
    WriteFile(Database(), bytes.substr(0, bytes.size() - 1));
    ChooseDatabase();
    const std::vector<std::string> entries = Entries();
    Click("cmdBuild");
    ASSERT_TRUE(WaitForEnd());
    EXPECT_TRUE(Status().starts_with("Failed: something to be read is missing or damaged"));
    EXPECT_NE(Log().find("d05_0101.1476: ends within a record"), std::string::npos) << Log();
    EXPECT_EQ(Entries(), entries);

    // Invalid inputs start nothing.
    Type("txtRA", "0");
    On<QLineEdit>("txtFaintest")->setText("faint");
    Click("cmdBuild");
    EXPECT_EQ(Status(), "The faintest magnitude is a number like 16.5, or empty.");
    On<QLineEdit>("txtFaintest")->clear();
    auto* sources = On<QListWidget>("lstCatalogSources");
    for (int row = 0; row < sources->count(); ++row) {
        sources->item(row)->setCheckState(Qt::Unchecked);
    }
    On<QCheckBox>("chkTables")->setChecked(false);
    Click("cmdBuild");
    EXPECT_EQ(Status(), "Choose a source, or tables to make.");
}

TEST_F(CatalogPage, FieldsThatDoNotGrowOrDoNotExistBuildNothing) {
    ChooseDatabase();
    const std::vector<std::string> entries = Entries();
    for (const auto& [from, to] : {std::pair{30.0, 18.0}, {5.0, 5.0}, {99.0, 31.0}}) {
        WantTables(from, to);
        Click("cmdBuild");
        EXPECT_EQ(Status(), "The fields of the tables must grow from left to right.") << from;
        EXPECT_TRUE(On<QPushButton>("cmdBuild")->isEnabled());
    }
    // What is typed stays within what there can be tables for; the point is the decimal mark.
    auto* smallest = On<QDoubleSpinBox>("numSmallestField");
    for (const char* typed : {"0.01", "-3", "7000", "", "1.25"}) {
        smallest->setFocus();
        smallest->selectAll();
        QTest::keyClicks(smallest, typed);
        QTest::keyClick(smallest, Qt::Key_Tab);
        EXPECT_GE(smallest->value(), 0.2) << typed;
        EXPECT_LE(smallest->value(), 30) << typed;
    }
    EXPECT_EQ(smallest->value(), 1.25);
    EXPECT_EQ(Entries(), entries);
    // Without tables their fields do not matter.
    WantTables(30, 18);
    On<QCheckBox>("chkTables")->setChecked(false);
    EXPECT_FALSE(smallest->isEnabled());
    Click("cmdBuild");
    ASSERT_TRUE(WaitForEnd());
    EXPECT_EQ(Status(), "Done") << Log();
}

TEST_F(CatalogPage, ClosingTheProgramEndsItsBuildCleanly) {
    const std::filesystem::path pipe = Folder / "stars.csv";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::fstream open(pipe, std::ios::in | std::ios::out);
    open << "ra,dec,mag\n1,2,3\n" << std::flush;
    const std::vector<std::string> entries = Entries();
    auto* sources = On<QListWidget>("lstCatalogSources");
    for (int row = 0; row < sources->count(); ++row) {
        sources->item(row)->setCheckState(Qt::Unchecked);
    }
    Dialogs.FileToChoose = QtText(pipe.string());
    Click("cmdAddTable");
    Click("cmdBuild");
    ASSERT_TRUE(QTest::qWaitFor([&] { return Entries().size() > entries.size(); }, 20000));
    Page->close();  // the build continues
    EXPECT_GT(Entries().size(), entries.size());
    Window.reset();
    EXPECT_EQ(Entries(), entries);
}

}  // namespace
}  // namespace vestrel
