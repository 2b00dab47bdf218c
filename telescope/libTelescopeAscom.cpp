// Telescopes by ASCOM, whose drivers are called by the names of their members, as scripts do.

#include <windows.h>
// windows.h must come before the next one.
#include <oleauto.h>

#include <array>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "platform/libPlatform.h"
#include "telescope/libTelescopeDriver.h"

namespace vestrel {

namespace {

constexpr const wchar_t* programId = L"SiTech.Telescope";

std::string Text(const wchar_t* wide) {
    return wide == nullptr ? std::string() : TextFromPath(wide);
}

/// The system's text for a failure.
std::string Reason(HRESULT result) {
    wchar_t* text = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(result), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::string reason = length > 0 ? Text(text) : std::string();
    LocalFree(text);
    while (!reason.empty() && static_cast<unsigned char>(reason.back()) <= ' ') reason.pop_back();
    if (!reason.empty()) return reason;
    std::array<char, 24> number{};
    std::snprintf(number.data(), number.size(), "error 0x%08lX",
                  static_cast<unsigned long>(result));
    return number.data();
}

/// Initialises COM for a thread, in the multithreaded apartment: with an apartment of its own, the
/// thread would have to handle window messages while it waits for the next call. COM provides one
/// for drivers that need it.
class Apartment {
 public:
    Apartment() : result_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~Apartment() {
        if (SUCCEEDED(result_)) CoUninitialize();
    }
    Apartment(const Apartment&) = delete;
    Apartment& operator=(const Apartment&) = delete;

 private:
    HRESULT result_;
};

/// A value passed to or from a driver. Frees the texts and objects in it.
class Variant {
 public:
    Variant() { VariantInit(&value_); }
    explicit Variant(bool flag) : Variant() {
        V_VT(&value_) = VT_BOOL;
        V_BOOL(&value_) = flag ? VARIANT_TRUE : VARIANT_FALSE;
    }
    explicit Variant(double number) : Variant() {
        V_VT(&value_) = VT_R8;
        V_R8(&value_) = number;
    }
    ~Variant() { VariantClear(&value_); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    VARIANT* Get() { return &value_; }

 private:
    VARIANT value_;
};

/// The texts of a driver's exception.
class ExceptionInfo {
 public:
    ExceptionInfo() = default;
    ~ExceptionInfo() {
        SysFreeString(Info.bstrSource);
        SysFreeString(Info.bstrDescription);
        SysFreeString(Info.bstrHelpFile);
    }
    ExceptionInfo(const ExceptionInfo&) = delete;
    ExceptionInfo& operator=(const ExceptionInfo&) = delete;

    std::string Reason() {
        if (Info.pfnDeferredFillIn != nullptr) Info.pfnDeferredFillIn(&Info);
        std::string text = Text(Info.bstrDescription);
        if (!text.empty()) return text;
        return vestrel::Reason(FAILED(Info.scode) ? Info.scode : DISP_E_EXCEPTION);
    }

    EXCEPINFO Info{};
};

class AscomDriver : public TelescopeDriver {
 public:
    explicit AscomDriver(const CLSID& id) {
        void* object = nullptr;
        const HRESULT result = CoCreateInstance(
            id, nullptr, CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER, IID_IDispatch, &object);
        if (FAILED(result)) throw TelescopeError("the driver does not start: " + Reason(result));
        object_ = static_cast<IDispatch*>(object);
    }
    ~AscomDriver() override { object_->Release(); }
    AscomDriver(const AscomDriver&) = delete;
    AscomDriver& operator=(const AscomDriver&) = delete;

    void SetConnected(bool connected) override {
        Variant flag(connected);
        Variant nothing;
        Invoke("Connected", DISPATCH_PROPERTYPUT, {flag.Get()}, nothing);
    }
    double RightAscension() override { return Number("RightAscension"); }
    double Declination() override { return Number("Declination"); }
    void SyncToCoordinates(double hours, double degrees) override {
        Variant first(hours);
        Variant second(degrees);
        Variant nothing;
        Invoke("SyncToCoordinates", DISPATCH_METHOD, {first.Get(), second.Get()}, nothing);
    }

 private:
    double Number(const char* member) {
        Variant value;
        Invoke(member, DISPATCH_PROPERTYGET, {}, value);
        // Drivers answer with any type of number, some with text, which is read independently of
        // the locale.
        if (V_VT(value.Get()) == VT_EMPTY || V_VT(value.Get()) == VT_NULL ||
            FAILED(VariantChangeTypeEx(value.Get(), value.Get(), LOCALE_INVARIANT, 0, VT_R8))) {
            throw TelescopeError(std::string(member) + " is no number");
        }
        return V_R8(value.Get());
    }

    void Invoke(const char* member, WORD kind, std::initializer_list<VARIANT*> arguments,
                Variant& result) {
        std::wstring name = PathFromText(member).native();
        wchar_t* names[] = {name.data()};
        DISPID id = DISPID_UNKNOWN;
        HRESULT code = object_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
        if (FAILED(code)) Fail(member, code);

        // COM takes the last argument first. The arguments stay ours: the driver gets copies of
        // plain numbers.
        std::array<VARIANT, 2> given{};
        std::size_t at = arguments.size();
        for (VARIANT* argument : arguments) given[--at] = *argument;
        DISPID put = DISPID_PROPERTYPUT;
        const bool puts = kind == DISPATCH_PROPERTYPUT;
        DISPPARAMS parameters{given.data(), puts ? &put : nullptr,
                              static_cast<UINT>(arguments.size()), puts ? 1U : 0U};
        ExceptionInfo exception;
        code = object_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, kind, &parameters, result.Get(),
                               &exception.Info, nullptr);
        if (code == DISP_E_EXCEPTION) {
            throw TelescopeError(std::string(member) + ": " + exception.Reason());
        }
        if (FAILED(code)) Fail(member, code);
    }

    [[noreturn]] static void Fail(const char* member, HRESULT code) {
        // The driver's own process has ended.
        const bool gone = code == RPC_E_DISCONNECTED || code == RPC_E_SERVER_DIED ||
                          code == RPC_E_SERVER_DIED_DNE || code == CO_E_OBJNOTCONNECTED ||
                          code == HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE) ||
                          code == HRESULT_FROM_WIN32(RPC_S_CALL_FAILED);
        throw TelescopeError(std::string(member) + ": " + Reason(code),
                             gone ? TelescopeError::Kind::Lost : TelescopeError::Kind::Refused);
    }

    Apartment apartment_;  // must outlive the object
    IDispatch* object_ = nullptr;
};

}  // namespace

std::unique_ptr<TelescopeDriver> CreateTelescopeDriver() {
    const Apartment apartment;
    CLSID id{};
    if (FAILED(CLSIDFromProgID(programId, &id))) return nullptr;
    return std::make_unique<AscomDriver>(id);
}

std::unique_ptr<TelescopeDriver> CreateTelescopeDriverAt(const std::string& /*address*/) {
    return CreateTelescopeDriver();
}

}  // namespace vestrel
