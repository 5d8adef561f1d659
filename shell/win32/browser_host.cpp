// Hosting the browser control: the OLE site, frame and document-host objects
// it talks to, its events, and navigation requested by the player.
#include "browser_host.h"

#include <exdispid.h>
#include <ole2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool Tracing() { return getenv("LUMETTA_DEBUG_WINDOW") != nullptr; }

void Trace(const char* what, const char* text) {
  if (!Tracing()) return;
  fprintf(stderr, "%s: %s\n", what, text);
  fflush(stderr);
}

std::string Narrow(const wchar_t* w) {
  if (!w) return "";
  int n = WideCharToMultiByte(CP_ACP, 0, w, -1, nullptr, 0, nullptr, nullptr);
  std::string s(n > 0 ? size_t(n) : 1, '\0');
  if (n > 0) WideCharToMultiByte(CP_ACP, 0, w, -1, &s[0], n, nullptr, nullptr);
  s.resize(strlen(s.c_str()));
  return s;
}

}  // namespace

// --- MyDocHandler ---------------------------------------------------------

HRESULT MyDocHandler::QueryInterface(REFIID riid, void** out) {
  if (!out) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDocHostUIHandler)) {
    *out = static_cast<IDocHostUIHandler*>(this);
    AddRef();  // the browser releases what it gets; an unbalanced count frees us early
    return S_OK;
  }
  *out = nullptr;
  return E_NOINTERFACE;
}

ULONG MyDocHandler::AddRef() { return ULONG(InterlockedIncrement(&Count)); }

ULONG MyDocHandler::Release() {
  LONG left = InterlockedDecrement(&Count);
  if (left == 0) delete this;
  return ULONG(left);
}

// S_OK claims the menu as shown, so the browser shows none; S_FALSE lets it
// show its own.
HRESULT MyDocHandler::ShowContextMenu(DWORD, POINT*, IUnknown*, IDispatch*) {
  return SuppressMenu ? S_OK : S_FALSE;
}

HRESULT MyDocHandler::GetHostInfo(DOCHOSTUIINFO* info) {
  if (!info) return E_POINTER;
  info->dwFlags = DOCHOSTUIFLAG_NO3DBORDER | DOCHOSTUIFLAG_NO3DOUTERBORDER;
  info->dwDoubleClick = DOCHOSTUIDBLCLK_DEFAULT;
  return S_OK;
}

HRESULT MyDocHandler::ShowUI(DWORD, IOleInPlaceActiveObject*, IOleCommandTarget*, IOleInPlaceFrame*,
                             IOleInPlaceUIWindow*) {
  return E_NOTIMPL;
}
HRESULT MyDocHandler::HideUI() { return E_NOTIMPL; }
HRESULT MyDocHandler::UpdateUI() { return E_NOTIMPL; }
HRESULT MyDocHandler::EnableModeless(WINBOOL) { return E_NOTIMPL; }
HRESULT MyDocHandler::OnDocWindowActivate(WINBOOL) { return E_NOTIMPL; }
HRESULT MyDocHandler::OnFrameWindowActivate(WINBOOL) { return E_NOTIMPL; }
HRESULT MyDocHandler::ResizeBorder(LPCRECT, IOleInPlaceUIWindow*, WINBOOL) { return E_NOTIMPL; }
HRESULT MyDocHandler::TranslateAccelerator(LPMSG, const GUID*, DWORD) { return E_NOTIMPL; }
HRESULT MyDocHandler::GetOptionKeyPath(LPOLESTR* key, DWORD) {
  if (key) *key = nullptr;
  return E_NOTIMPL;
}
HRESULT MyDocHandler::GetDropTarget(IDropTarget*, IDropTarget** out) {
  if (out) *out = nullptr;
  return E_NOTIMPL;
}
HRESULT MyDocHandler::GetExternal(IDispatch** out) {
  if (out) *out = nullptr;
  return E_NOTIMPL;
}
HRESULT MyDocHandler::TranslateUrl(DWORD, LPWSTR, LPWSTR* out) {
  if (out) *out = nullptr;
  return E_NOTIMPL;
}
HRESULT MyDocHandler::FilterDataObject(IDataObject*, IDataObject** out) {
  if (out) *out = nullptr;
  return E_NOTIMPL;
}

// --- BrowserSite ----------------------------------------------------------

// The container side of the control: its client site, the in-place site and
// frame it activates in (the main window), and the sink of its events. One
// object, counted once, living as long as the control holds it.
class BrowserSite : public IOleClientSite, public IOleInPlaceSite, public IOleInPlaceFrame,
                    public IDispatch {
 public:
  BrowserSite(HWND window, MyDocHandler* handler, BrowserListener* listener)
      : Window(window), Handler(handler), Listener(listener) {}
  virtual ~BrowserSite() {}
  RECT Area = {0, 0, 0, 0};
  IOleInPlaceActiveObject* Active = nullptr;

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (!out) return E_POINTER;
    *out = nullptr;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IOleClientSite))
      *out = static_cast<IOleClientSite*>(this);
    else if (IsEqualIID(riid, IID_IOleWindow) || IsEqualIID(riid, IID_IOleInPlaceSite))
      *out = static_cast<IOleInPlaceSite*>(this);
    else if (IsEqualIID(riid, IID_IOleInPlaceFrame) || IsEqualIID(riid, IID_IOleInPlaceUIWindow))
      *out = static_cast<IOleInPlaceFrame*>(this);
    else if (IsEqualIID(riid, IID_IDispatch) || IsEqualIID(riid, DIID_DWebBrowserEvents2))
      *out = static_cast<IDispatch*>(this);
    else if (IsEqualIID(riid, IID_IDocHostUIHandler) && Handler)
      return Handler->QueryInterface(riid, out);
    if (!*out) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ULONG(InterlockedIncrement(&Count)); }
  ULONG STDMETHODCALLTYPE Release() override {
    LONG left = InterlockedDecrement(&Count);
    if (left == 0) delete this;
    return ULONG(left);
  }

  // IOleClientSite
  HRESULT STDMETHODCALLTYPE SaveObject() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMoniker(DWORD, DWORD, IMoniker** out) override {
    if (out) *out = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetContainer(IOleContainer** out) override {
    if (out) *out = nullptr;
    return E_NOINTERFACE;
  }
  HRESULT STDMETHODCALLTYPE ShowObject() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnShowWindow(WINBOOL) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE RequestNewObjectLayout() override { return E_NOTIMPL; }

  // IOleWindow (shared by the in-place site and the frame)
  HRESULT STDMETHODCALLTYPE GetWindow(HWND* out) override {
    if (!out) return E_POINTER;
    *out = Window;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ContextSensitiveHelp(WINBOOL) override { return E_NOTIMPL; }

  // IOleInPlaceSite
  HRESULT STDMETHODCALLTYPE CanInPlaceActivate() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnInPlaceActivate() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnUIActivate() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** doc,
                                             LPRECT pos, LPRECT clip,
                                             LPOLEINPLACEFRAMEINFO info) override {
    if (frame) {
      *frame = this;
      AddRef();
    }
    if (doc) *doc = nullptr;
    if (pos) *pos = Area;
    if (clip) *clip = Area;
    if (info) {
      info->fMDIApp = FALSE;
      info->hwndFrame = Window;
      info->haccel = nullptr;
      info->cAccelEntries = 0;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Scroll(SIZE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OnUIDeactivate(WINBOOL) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnInPlaceDeactivate() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE DiscardUndoState() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE DeactivateAndUndo() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OnPosRectChange(LPCRECT) override { return S_OK; }

  // IOleInPlaceUIWindow / IOleInPlaceFrame: no menus or tool space to share.
  HRESULT STDMETHODCALLTYPE GetBorder(LPRECT) override { return INPLACE_E_NOTOOLSPACE; }
  HRESULT STDMETHODCALLTYPE RequestBorderSpace(LPCBORDERWIDTHS) override { return INPLACE_E_NOTOOLSPACE; }
  HRESULT STDMETHODCALLTYPE SetBorderSpace(LPCBORDERWIDTHS) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetActiveObject(IOleInPlaceActiveObject* obj, LPCOLESTR) override {
    if (obj) obj->AddRef();
    if (Active) Active->Release();
    Active = obj;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE InsertMenus(HMENU, LPOLEMENUGROUPWIDTHS) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetMenu(HMENU, HOLEMENU, HWND) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE RemoveMenus(HMENU) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetStatusText(LPCOLESTR text) override {
    if (Listener) Listener->OnStatusText(Narrow(text).c_str());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE EnableModeless(WINBOOL) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE TranslateAccelerator(LPMSG, WORD) override { return S_FALSE; }

  // IDispatch: the control's events (status text, title, finished loads).
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* n) override {
    if (n) *n = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** out) override {
    if (out) *out = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*,
                                   EXCEPINFO*, UINT*) override {
    const VARIANT* first = params && params->cArgs ? &params->rgvarg[params->cArgs - 1] : nullptr;
    std::string text = first && V_VT(first) == VT_BSTR ? Narrow(V_BSTR(first)) : "";
    switch (id) {
      case DISPID_STATUSTEXTCHANGE:
        if (Listener) Listener->OnStatusText(text.c_str());
        break;
      case DISPID_TITLECHANGE:
        if (Listener) Listener->OnTitle(text.c_str());
        break;
      case DISPID_DOCUMENTCOMPLETE:
        Trace("loaded", "document");
        break;
      default:
        break;
    }
    return S_OK;
  }

 private:
  LONG Count = 1;
  HWND Window;
  MyDocHandler* Handler;
  BrowserListener* Listener;
};

// --- BrowserHost ----------------------------------------------------------

namespace {

void TraceResult(const char* step, HRESULT hr) {
  if (!Tracing() && SUCCEEDED(hr)) return;
  fprintf(stderr, "browser %s: 0x%08lx\n", step, (unsigned long)hr);
  fflush(stderr);
}

}  // namespace

bool BrowserHost::Create(HWND parent, BrowserListener* listener) {
  DocHandler = new MyDocHandler(false);
  Site = new BrowserSite(parent, DocHandler, listener);
  HRESULT hr = CoCreateInstance(CLSID_WebBrowser, nullptr, CLSCTX_INPROC_SERVER, IID_IOleObject,
                                reinterpret_cast<void**>(&Ole));
  TraceResult("create", hr);
  if (FAILED(hr)) return false;
  Ole->SetClientSite(Site);
  OleSetContainedObject(Ole, TRUE);
  RECT area;
  GetClientRect(parent, &area);
  Site->Area = area;
  hr = Ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, Site, 0, parent, &area);
  TraceResult("activate", hr);
  hr = Ole->QueryInterface(IID_IWebBrowser2, reinterpret_cast<void**>(&Browser));
  TraceResult("interface", hr);
  if (FAILED(hr)) {
    Destroy();
    return false;
  }
  ConnectEvents();
  return true;
}

void BrowserHost::ConnectEvents() {
  IConnectionPointContainer* points = nullptr;
  if (FAILED(Browser->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&points))))
    return;
  if (SUCCEEDED(points->FindConnectionPoint(DIID_DWebBrowserEvents2, &Events)) &&
      FAILED(Events->Advise(static_cast<IDispatch*>(Site), &EventsCookie))) {
    Events->Release();
    Events = nullptr;
  }
  points->Release();
}

void BrowserHost::SetRect(const RECT& area) {
  if (Site) Site->Area = area;
  if (!Ole) return;
  IOleInPlaceObject* inPlace = nullptr;
  if (SUCCEEDED(Ole->QueryInterface(IID_IOleInPlaceObject, reinterpret_cast<void**>(&inPlace)))) {
    inPlace->SetObjectRects(&area, &area);
    inPlace->Release();
  }
}

bool BrowserHost::Navigate(const char* url) {
  Trace("navigate", url);
  if (!Browser) return false;
  // The address is widened by the C library's multibyte rules.
  size_t n = mbstowcs(nullptr, url, 0);
  if (n == size_t(-1)) return false;
  std::wstring wide(n + 1, L'\0');
  mbstowcs(&wide[0], url, n + 1);
  BSTR address = SysAllocString(wide.c_str());
  VARIANT omitted;
  VariantInit(&omitted);
  V_VT(&omitted) = VT_ERROR;
  V_ERROR(&omitted) = DISP_E_PARAMNOTFOUND;  // the platform's mark of an omitted argument
  HRESULT hr = Browser->Navigate(address, &omitted, &omitted, &omitted, &omitted);
  SysFreeString(address);
  TraceResult("navigate", hr);
  return SUCCEEDED(hr);
}

void BrowserHost::SuppressContextMenu() {
  if (DocHandler) DocHandler->SuppressMenu = true;
}

bool BrowserHost::TranslateKey(MSG* msg) {
  if (!Site || !Site->Active) return false;
  if (msg->message < WM_KEYFIRST || msg->message > WM_KEYLAST) return false;
  return Site->Active->TranslateAccelerator(msg) == S_OK;
}

void BrowserHost::Destroy() {
  if (Events) {
    Events->Unadvise(EventsCookie);
    Events->Release();
    Events = nullptr;
  }
  if (Browser) {
    Browser->Stop();
    Browser->Release();
    Browser = nullptr;
  }
  if (Ole) {
    Ole->Close(OLECLOSE_NOSAVE);
    Ole->SetClientSite(nullptr);
    Ole->Release();
    Ole = nullptr;
  }
  if (Site) {
    Site->SetActiveObject(nullptr, nullptr);
    Site->Release();
    Site = nullptr;
  }
  if (DocHandler) {
    DocHandler->Release();  // our creation reference; the browser has let go of its own
    DocHandler = nullptr;
  }
}

void SetNewestBrowserMode() {
  char path[MAX_PATH];
  DWORD len = GetModuleFileNameA(nullptr, path, MAX_PATH);
  if (len == 0 || len >= MAX_PATH) return;
  const char* name = strrchr(path, '\\');
  name = name ? name + 1 : path;
  HKEY key;
  const char* subKey =
      "Software\\Microsoft\\Internet Explorer\\Main\\FeatureControl\\FEATURE_BROWSER_EMULATION";
  if (RegCreateKeyExA(HKEY_CURRENT_USER, subKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS)
    return;
  DWORD mode = 11001;  // the newest document mode, whatever a page declares
  RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&mode), sizeof mode);
  RegCloseKey(key);
}
