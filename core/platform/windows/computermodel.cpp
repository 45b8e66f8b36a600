#include <objbase.h>
// After objbase.h.
#include <oleauto.h>
#include <wbemidl.h>

#include <stdexcept>
#include <utility>

#include "core/platform/sysfacts.h"
#include "core/platform/windows/text.h"

namespace velmora::platform {
namespace {

template <typename Interface>
class ComPointer {
public:
    ComPointer() = default;
    ~ComPointer() {
        if (object_ != nullptr) object_->Release();
    }
    ComPointer(const ComPointer&) = delete;
    ComPointer& operator=(const ComPointer&) = delete;

    Interface** out() { return &object_; }
    Interface* get() const { return object_; }
    Interface* operator->() const { return object_; }

private:
    Interface* object_ = nullptr;
};

class SystemString {
public:
    explicit SystemString(const wchar_t* text) : text_(::SysAllocString(text)) {}
    ~SystemString() { ::SysFreeString(text_); }
    SystemString(const SystemString&) = delete;
    SystemString& operator=(const SystemString&) = delete;

    BSTR get() const { return text_; }

private:
    BSTR text_;
};

class ComApartment {
public:
    ComApartment() : entered_(SUCCEEDED(::CoInitialize(nullptr))) {}
    ~ComApartment() {
        if (entered_) ::CoUninitialize();
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

private:
    const bool entered_;  // not if the host has made the thread's apartment of another kind, which serves as well
};

bool connect(IWbemLocator& locator, IWbemServices** services) {
    const SystemString space(L"ROOT\\CIMV2");
    if (FAILED(locator.ConnectServer(space.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, services))) {
        return false;
    }
    return SUCCEEDED(::CoSetProxyBlanket(*services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                         RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
}

bool queryComputer(IWbemServices& services, IWbemClassObject** computer) {
    const SystemString language(L"WQL");
    const SystemString query(L"SELECT * FROM Win32_ComputerSystem");
    ComPointer<IEnumWbemClassObject> rows;
    if (FAILED(services.ExecQuery(language.get(), query.get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                  nullptr, rows.out()))) {
        return false;
    }
    ULONG count = 0;
    return SUCCEEDED(rows->Next(WBEM_INFINITE, 1, computer, &count)) && count == 1;
}

class Variant {
public:
    Variant() { ::VariantInit(&value_); }
    ~Variant() { ::VariantClear(&value_); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;

    VARIANT* get() { return &value_; }

private:
    VARIANT value_;
};

// Leaves the text as it is if the property can't be had or is no text.
void readProperty(IWbemClassObject& computer, const wchar_t* name, std::string& text) {
    Variant value;
    if (FAILED(computer.Get(name, 0, value.get(), nullptr, nullptr))) return;
    if ((V_VT(value.get()) & VT_ARRAY) != 0) {
        text = "Unknown";
    } else if (V_VT(value.get()) == VT_BSTR && V_BSTR(value.get()) != nullptr) {
        try {
            text = utf8FromWide(V_BSTR(value.get()));
        } catch (const std::range_error&) {
        }
    }
}

}  // namespace

ComputerModel computerModel() {
    ComputerModel result;
    const ComApartment apartment;
    ComPointer<IWbemLocator> locator;
    if (FAILED(::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                  reinterpret_cast<void**>(locator.out())))) {
        return result;
    }
    ComPointer<IWbemServices> services;
    if (!connect(*locator.get(), services.out())) return result;
    ComPointer<IWbemClassObject> computer;
    if (!queryComputer(*services.get(), computer.out())) return result;
    readProperty(*computer.get(), L"Manufacturer", result.manufacturer);
    readProperty(*computer.get(), L"Model", result.model);
    return result;
}

}  // namespace velmora::platform
