// An automation server like those that telescope drivers install, for the tests of the link to
// them. It logs how it is called, and misbehaves as the environment says: VESTREL_TEST_TELESCOPE =
// "member how", VESTREL_TEST_TELESCOPE_LOG = file.

#include <windows.h>
// windows.h must come before the next one.
#include <oleauto.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cwchar>
#include <string>

// The interfaces of COM have no destructors.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace {

constexpr std::array<const wchar_t*, 4> members = {L"Connected", L"RightAscension", L"Declination",
                                                   L"SyncToCoordinates"};

std::wstring Variable(const wchar_t* name) {
    std::array<wchar_t, 512> value{};
    return {value.data(), GetEnvironmentVariableW(name, value.data(), value.size())};
}

/// The fault that a member is to show; empty: none.
std::wstring Fault(const wchar_t* member) {
    const std::wstring fault = Variable(L"VESTREL_TEST_TELESCOPE");
    const std::wstring start = std::wstring(member) + L" ";
    return fault.starts_with(start) ? fault.substr(start.size()) : std::wstring();
}

void Log(const std::wstring& line) {
    std::FILE* file = _wfopen(Variable(L"VESTREL_TEST_TELESCOPE_LOG").c_str(), L"ab");
    if (file == nullptr) return;
    std::fprintf(file, "%ls\n", line.c_str());
    std::fclose(file);
}

std::wstring TextOf(VARIANT& value) {
    VARIANT text;
    VariantInit(&text);
    if (FAILED(VariantChangeTypeEx(&text, &value, LOCALE_INVARIANT, VARIANT_ALPHABOOL, VT_BSTR))) {
        return L"?";
    }
    std::wstring result = std::to_wstring(V_VT(&value)) + L":" + V_BSTR(&text);
    VariantClear(&text);
    return result;
}

/// Counts its owners and deletes itself with the last one.
template <typename Interface>
class Counted : public Interface {
 public:
    virtual ~Counted() = default;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID wanted, void** object) override {
        const bool known = wanted == IID_IUnknown || wanted == __uuidof(Interface);
        *object = known ? this : nullptr;
        if (!known) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++owners_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --owners_;
        if (left == 0) delete this;
        return left;
    }

 private:
    std::atomic<ULONG> owners_{1};
};

class Telescope : public Counted<IDispatch> {
 public:
    Telescope() { Log(L"created"); }
    ~Telescope() override { Log(L"destroyed"); }
    Telescope(const Telescope&) = delete;
    Telescope& operator=(const Telescope&) = delete;

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                            DISPID* ids) override {
        for (std::size_t i = 0; count == 1 && i < members.size(); ++i) {
            if (_wcsicmp(names[0], members[i]) == 0 && Fault(members[i]) != L"missing") {
                ids[0] = static_cast<DISPID>(i);
                return S_OK;
            }
        }
        return DISP_E_UNKNOWNNAME;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID member, REFIID, LCID, WORD kind, DISPPARAMS* given,
                                     VARIANT* result, EXCEPINFO* exception, UINT*) override {
        if (member < 0 || member >= static_cast<DISPID>(members.size())) {
            return DISP_E_MEMBERNOTFOUND;
        }
        const wchar_t* name = members[static_cast<std::size_t>(member)];
        std::wstring line = name;
        for (UINT i = given->cArgs; i-- > 0;) line += L" " + TextOf(given->rgvarg[i]);
        Log(line);
        const std::wstring fault = Fault(name);
        if (fault == L"hangs") Sleep(1500);
        if (fault == L"fails") return E_ACCESSDENIED;
        if (fault == L"throws") {
            exception->scode = DISP_E_EXCEPTION;
            exception->bstrDescription = SysAllocString(L"The mount is parked \x2605");
            return DISP_E_EXCEPTION;
        }
        const bool puts = member == 0;
        if (kind != (puts          ? DISPATCH_PROPERTYPUT
                     : member == 3 ? DISPATCH_METHOD
                                   : DISPATCH_PROPERTYGET)) {
            return DISP_E_MEMBERNOTFOUND;
        }
        if (given->cArgs != (puts ? 1U : member == 3 ? 2U : 0U)) return DISP_E_BADPARAMCOUNT;
        if (puts && (given->cNamedArgs != 1 || given->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT)) {
            return DISP_E_NONAMEDARGS;
        }
        if (member == 3) {  // the last argument comes first
            hours_ = V_R8(&given->rgvarg[1]);
            degrees_ = V_R8(&given->rgvarg[0]);
        } else if (!puts) {
            Answer(member == 1 ? hours_ : degrees_, fault, result);
        }
        return S_OK;
    }

 private:
    /// Returns a number in the requested type.
    void Answer(double number, const std::wstring& type, VARIANT* result) {
        V_VT(result) = VT_R8;
        V_R8(result) = number;
        const std::wstring text = std::to_wstring(number);
        if (type == L"float") VariantChangeType(result, result, 0, VT_R4);
        if (type == L"integer") VariantChangeType(result, result, 0, VT_I2);
        if (type == L"text" || type == L"word") {
            V_VT(result) = VT_BSTR;
            V_BSTR(result) = SysAllocString(type == L"text" ? text.c_str() : L"north");
        }
        if (type == L"object") {
            V_VT(result) = VT_DISPATCH;
            V_DISPATCH(result) = this;
            AddRef();
        }
        if (type == L"nothing") V_VT(result) = VT_EMPTY;
    }

    double hours_ = 1.25;
    double degrees_ = -7;
};

class Factory : public Counted<IClassFactory> {
 public:
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID wanted,
                                             void** object) override {
        *object = nullptr;
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        auto* telescope = new Telescope;
        const HRESULT result = telescope->QueryInterface(wanted, object);
        telescope->Release();
        return result;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

}  // namespace

extern "C" __declspec(dllexport) HRESULT
    __stdcall DllGetClassObject(REFCLSID, REFIID wanted, void** object) {
    auto* factory = new Factory;
    const HRESULT result = factory->QueryInterface(wanted, object);
    factory->Release();
    return result;
}

extern "C" __declspec(dllexport) HRESULT __stdcall DllCanUnloadNow() {
    return S_FALSE;
}
