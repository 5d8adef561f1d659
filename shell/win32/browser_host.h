// The system's web-browser control hosted in a child area of the main window
// through OLE: a client site with in-place activation, the document host's
// user-interface handler (context menu, border) and the control's events.
#ifndef LUMETTA_SHELL_WIN32_BROWSER_HOST_H
#define LUMETTA_SHELL_WIN32_BROWSER_HOST_H

#include <windows.h>
#include <exdisp.h>
#include <mshtmhst.h>

// The document host's user-interface handler. The browser asks the client
// site for it; it decides on the context menu and asks for a page without
// the sunken 3-D border. Everything else keeps the browser's default.
class MyDocHandler : public IDocHostUIHandler {
 public:
  explicit MyDocHandler(bool suppressMenu) : SuppressMenu(suppressMenu) {}
  virtual ~MyDocHandler() {}
  bool SuppressMenu;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE ShowContextMenu(DWORD, POINT*, IUnknown*, IDispatch*) override;
  HRESULT STDMETHODCALLTYPE GetHostInfo(DOCHOSTUIINFO* info) override;
  HRESULT STDMETHODCALLTYPE ShowUI(DWORD, IOleInPlaceActiveObject*, IOleCommandTarget*,
                                   IOleInPlaceFrame*, IOleInPlaceUIWindow*) override;
  HRESULT STDMETHODCALLTYPE HideUI() override;
  HRESULT STDMETHODCALLTYPE UpdateUI() override;
  HRESULT STDMETHODCALLTYPE EnableModeless(WINBOOL) override;
  HRESULT STDMETHODCALLTYPE OnDocWindowActivate(WINBOOL) override;
  HRESULT STDMETHODCALLTYPE OnFrameWindowActivate(WINBOOL) override;
  HRESULT STDMETHODCALLTYPE ResizeBorder(LPCRECT, IOleInPlaceUIWindow*, WINBOOL) override;
  HRESULT STDMETHODCALLTYPE TranslateAccelerator(LPMSG, const GUID*, DWORD) override;
  HRESULT STDMETHODCALLTYPE GetOptionKeyPath(LPOLESTR*, DWORD) override;
  HRESULT STDMETHODCALLTYPE GetDropTarget(IDropTarget*, IDropTarget**) override;
  HRESULT STDMETHODCALLTYPE GetExternal(IDispatch**) override;
  HRESULT STDMETHODCALLTYPE TranslateUrl(DWORD, LPWSTR, LPWSTR*) override;
  HRESULT STDMETHODCALLTYPE FilterDataObject(IDataObject*, IDataObject**) override;

 private:
  LONG Count = 1;
};

class BrowserSite;

// What the window hears from the control.
struct BrowserListener {
  virtual ~BrowserListener() {}
  virtual void OnStatusText(const char* /*text*/) {}
  virtual void OnTitle(const char* /*title*/) {}
};

class BrowserHost {
 public:
  BrowserHost() {}
  BrowserHost(const BrowserHost&) = delete;
  BrowserHost& operator=(const BrowserHost&) = delete;
  ~BrowserHost() { Destroy(); }

  // Creates the control in the parent's area and activates it in place.
  // False (with the reason on standard error) when the system has none.
  bool Create(HWND parent, BrowserListener* listener);
  bool Created() const { return Browser != nullptr; }
  void SetRect(const RECT& area);
  // Opens the address; the optional arguments are passed as omitted.
  bool Navigate(const char* url);
  void SuppressContextMenu();
  // Lets the active page handle keys (Tab, accelerators); true when it did.
  bool TranslateKey(MSG* msg);
  void Destroy();

  MyDocHandler* DocHandler = nullptr;

 private:
  BrowserSite* Site = nullptr;
  IOleObject* Ole = nullptr;
  IWebBrowser2* Browser = nullptr;
  IConnectionPoint* Events = nullptr;
  DWORD EventsCookie = 0;

  void ConnectEvents();
};

// Makes the control render pages in its newest mode for this program (it
// falls back to an old compatibility mode otherwise).
void SetNewestBrowserMode();

#endif
