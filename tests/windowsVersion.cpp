// The version that Windows tells of a program. Imaging programs read it before they call one.

#include <gtest/gtest.h>

#include <windows.h>
// winver.h must come after it.
#include <winver.h>

#include <filesystem>
#include <string>
#include <vector>

namespace vestrel {
namespace {

TEST(WindowsVersion, HostsCanReadItFromTheProgramThatTheyCall) {
    const std::filesystem::path program = VESTREL_COMPAT;
    const DWORD length = GetFileVersionInfoSizeW(program.c_str(), nullptr);
    ASSERT_GT(length, 0U) << program;
    std::vector<char> all(length);
    ASSERT_TRUE(GetFileVersionInfoW(program.c_str(), 0, length, all.data()));
    void* found = nullptr;
    UINT size = 0;
    ASSERT_TRUE(VerQueryValueW(all.data(), L"\\", &found, &size));
    ASSERT_GE(size, sizeof(VS_FIXEDFILEINFO));
    const auto& numbers = *static_cast<const VS_FIXEDFILEINFO*>(found);
    EXPECT_GT(numbers.dwFileVersionMS + numbers.dwFileVersionLS, 0U);
    // The text of the translation that the file names is the same version.
    ASSERT_TRUE(
        VerQueryValueW(all.data(), L"\\StringFileInfo\\040904B0\\FileVersion", &found, &size));
    const std::wstring text(static_cast<const wchar_t*>(found));
    EXPECT_EQ(text, std::to_wstring(HIWORD(numbers.dwFileVersionMS)) + L"." +
                        std::to_wstring(LOWORD(numbers.dwFileVersionMS)) + L"." +
                        std::to_wstring(HIWORD(numbers.dwFileVersionLS)));
}

}  // namespace
}  // namespace vestrel
