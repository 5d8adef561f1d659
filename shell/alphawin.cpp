// Window fading without a toolkit: the list of managed windows, the fade
// steps driven by a timer, and the AW_ entry points the window events call.
#include "alphawin.h"

#include <cstdlib>

#include "pl_thread.h"

namespace {

AwPlatform Platform = {};
int AwEnable = 1;
AwAlpha AwAlphaMin = 178;
AwAlpha AwAlphaMax = 255;
AwAlpha AwAlphaOpen = 100;
unsigned AwFadeSpeed = 200;
_AW_WNDALPHA* BegAWnd = nullptr;
_AW_WNDALPHA* PrecAWnd = nullptr;
int AwWindows = 0;
PlMutex* MthH = nullptr;  // guards linking and unlinking; lives while windows do

void StopTimer(_AW_WNDALPHA* rec) {
  if (rec->Timer && Platform.TimerStop) Platform.TimerStop(rec->Timer);
  rec->Timer = 0;
  rec->StepsLeft = 0;
}

void SetLayered(_AW_WNDALPHA* rec, bool on) {
  if (Platform.SetLayered) Platform.SetLayered(rec->hWnd, on);
}

bool IsForeground(_AW_WNDALPHA* rec) {
  return Platform.IsForeground && Platform.IsForeground(rec->hWnd);
}

// Step size of a fade, truncated toward zero and kept as an 8-bit value.
signed char StepSize(const _AW_WNDALPHA* rec, int steps) {
  return static_cast<signed char>((int(rec->DestAlpha) - int(rec->CurAlpha)) / steps);
}

void ApplyStep(_AW_WNDALPHA* rec) {
  AW_SetAlpha(rec, static_cast<AwAlpha>(rec->CurAlpha + rec->Step));
}

void FinishFade(_AW_WNDALPHA* rec) {
  if (rec->CurAlpha != rec->DestAlpha) AW_SetAlpha(rec, rec->DestAlpha);
  rec->Timer = 0;
  if (!AwEnable) SetLayered(rec, false);
}

// Timer-driven counterpart of AW_Fade: after each applied step the fade
// waits one step period, and after the last one it corrects to DestAlpha.
void FadeTick(void* arg) {
  _AW_WNDALPHA* rec = static_cast<_AW_WNDALPHA*>(arg);
  rec->Timer = 0;
  if (rec->StepsLeft > 0) {
    ApplyStep(rec);
    rec->StepsLeft--;
    rec->Timer = Platform.TimerStart(AW_STEP_MS, FadeTick, rec);
    return;
  }
  FinishFade(rec);
}

// A new fade replaces a running one and starts from the opacity reached.
void StartFade(_AW_WNDALPHA* rec, AwAlpha to) {
  if (to == rec->DestAlpha) return;
  rec->DestAlpha = to;
  StopTimer(rec);
  int steps = int(AwFadeSpeed / AW_STEP_MS);
  if (steps == 0 || !Platform.TimerStart) {
    FinishFade(rec);
    return;
  }
  rec->Step = StepSize(rec, steps);
  rec->StepsLeft = steps;
  FadeTick(rec);
}

void Unlink(_AW_WNDALPHA* rec) {
  PlLock lock(*MthH);
  _AW_WNDALPHA* prev = nullptr;
  for (_AW_WNDALPHA* r = BegAWnd; r; prev = r, r = r->Ptr) {
    if (r != rec) continue;
    if (prev) prev->Ptr = r->Ptr;
    else BegAWnd = r->Ptr;
    if (PrecAWnd == r) PrecAWnd = prev;
    AwWindows--;
    break;
  }
}

void ForgetWindow(_AW_WNDALPHA* rec) {
  Unlink(rec);
  StopTimer(rec);
  if (AwWindows == 0) {
    delete MthH;
    MthH = nullptr;
    BegAWnd = PrecAWnd = nullptr;
  }
  free(rec);
}

}  // namespace

void AW_SetPlatform(const AwPlatform* platform) { Platform = *platform; }

_AW_WNDALPHA* AW_Find(void* window) {
  for (_AW_WNDALPHA* r = BegAWnd; r; r = r->Ptr)
    if (r->hWnd == window) return r;
  return nullptr;
}

int AW_Windows() { return AwWindows; }
int AW_Enabled() { return AwEnable; }

void AW_InitAlphaWin(void* window) {
  _AW_WNDALPHA* rec = static_cast<_AW_WNDALPHA*>(calloc(1, sizeof(_AW_WNDALPHA)));
  if (!rec) return;
  if (!MthH) MthH = new PlMutex;
  {
    PlLock lock(*MthH);
    if (PrecAWnd) PrecAWnd->Ptr = rec;
    else BegAWnd = rec;
    PrecAWnd = rec;
    AwWindows++;
  }
  rec->CurAlpha = AwAlphaMax;
  rec->hWnd = window;
  if (AwEnable) SetLayered(rec, true);
}

void AW_SetAlpha(_AW_WNDALPHA* rec, AwAlpha alpha) {
  if (!Platform.SetOpacity || alpha == rec->CurAlpha) return;
  Platform.SetOpacity(rec->hWnd, alpha);
  rec->CurAlpha = alpha;
}

void AW_Fade(_AW_WNDALPHA* rec) {
  int steps = int(AwFadeSpeed / AW_STEP_MS);
  if (steps == 0) {
    AW_SetAlpha(rec, rec->DestAlpha);
    return;
  }
  rec->Step = StepSize(rec, steps);
  for (int i = 0; i < steps; i++) {
    ApplyStep(rec);
    if (Platform.Sleep) Platform.Sleep(AW_STEP_MS);
  }
  if (rec->CurAlpha != rec->DestAlpha) AW_SetAlpha(rec, rec->DestAlpha);
}

void AW_FadeOut(void* window) {
  if (!AwEnable) return;
  _AW_WNDALPHA* rec = AW_Find(window);
  if (!rec) return;
  StopTimer(rec);
  rec->DestAlpha = AwAlphaOpen;
  AW_Fade(rec);
}

void AW_SetPar(AwAlpha alphaMax, AwAlpha alphaMin, AwAlpha alphaOpen, unsigned fadeSpeed) {
  bool changed = alphaMax != AwAlphaMax || alphaMin != AwAlphaMin;
  AwAlphaMax = alphaMax;
  AwAlphaMin = alphaMin;
  AwAlphaOpen = alphaOpen;
  AwFadeSpeed = fadeSpeed;
  if (!AwEnable || !changed) return;
  for (_AW_WNDALPHA* r = BegAWnd; r; r = r->Ptr)
    AW_SetAlpha(r, IsForeground(r) ? alphaMax : alphaMin);
}

void AW_EnableAll(int enable) {
  if (enable == AwEnable) return;
  for (_AW_WNDALPHA* r = BegAWnd; r; r = r->Ptr) {
    if (!enable) {
      StartFade(r, 255);
      continue;
    }
    SetLayered(r, true);
    if (!IsForeground(r)) StartFade(r, AwAlphaMin);
    else if (AwAlphaMax != 255) StartFade(r, AwAlphaMax);
  }
  AwEnable = enable;
  // A fade that ended at once while turning off ran before the flag changed.
  if (!enable)
    for (_AW_WNDALPHA* r = BegAWnd; r; r = r->Ptr)
      if (!r->Timer) SetLayered(r, false);
}

void AW_CallBack(void* window, AwEvent event) {
  _AW_WNDALPHA* rec = AW_Find(window);
  if (!rec || !AwEnable) return;
  switch (event) {
    case AW_SHOW: AW_SetAlpha(rec, AwAlphaOpen); break;
    case AW_ACTIVATE: StartFade(rec, AwAlphaMax); break;
    case AW_DEACTIVATE: StartFade(rec, AwAlphaMin); break;
    case AW_CLOSE: AW_FadeOut(window); break;
    case AW_DESTROY: ForgetWindow(rec); break;
  }
}

void AW_Reset() {
  while (BegAWnd) ForgetWindow(BegAWnd);
  AwEnable = 1;
  AwAlphaMin = 178;
  AwAlphaMax = 255;
  AwAlphaOpen = 100;
  AwFadeSpeed = 200;
}
