// Window fading: managed top-level windows start translucent when shown, fade
// up to full opacity when activated, down when another window is activated,
// and fade down before they close. The unit itself knows no toolkit: the
// windowing system, the clock and the timers come in through AwPlatform, so
// the stepping runs the same under a test clock as under a main loop.
#ifndef LUMETTA_SHELL_ALPHAWIN_H
#define LUMETTA_SHELL_ALPHAWIN_H

typedef unsigned char AwAlpha;  // 0 transparent .. 255 opaque

// What the unit needs from the windowing system. All calls happen on the
// thread that drives the windows (the GUI thread).
struct AwPlatform {
  // Applies an opacity. Null when the system cannot change opacity: the unit
  // then never changes it and windows keep working.
  void (*SetOpacity)(void* window, AwAlpha alpha);
  // Marks a window translucent-capable (on) or back to plain opaque (off).
  void (*SetLayered)(void* window, bool on);
  bool (*IsForeground)(void* window);
  // One-shot timer: calls fn(arg) after ms; returns a non-zero id.
  unsigned (*TimerStart)(unsigned ms, void (*fn)(void* arg), void* arg);
  void (*TimerStop)(unsigned id);
  // Waits ms on the calling thread (a GUI may keep drawing meanwhile).
  void (*Sleep)(unsigned ms);
};

// Installs the platform (copied). Must happen before the first window.
void AW_SetPlatform(const AwPlatform* platform);

// One record per managed window, linked in creation order.
struct _AW_WNDALPHA {
  _AW_WNDALPHA* Ptr;   // next record
  void* hWnd;          // the managed window
  unsigned Timer;      // pending step of a running fade, 0 when none
  int StepsLeft;       // steps of the running fade still to apply
  signed char Step;    // opacity change per step
  AwAlpha CurAlpha;    // opacity last applied
  AwAlpha DestAlpha;   // where the current or last fade goes
};

// What happens to a managed window, as the toolkit glue reports it.
enum AwEvent { AW_SHOW, AW_ACTIVATE, AW_DEACTIVATE, AW_CLOSE, AW_DESTROY };

const unsigned AW_STEP_MS = 50;

void AW_InitAlphaWin(void* window);
void AW_SetAlpha(_AW_WNDALPHA* rec, AwAlpha alpha);
// Fades from CurAlpha to DestAlpha on the calling thread (waits meanwhile).
void AW_Fade(_AW_WNDALPHA* rec);
// Fades a managed window down to the opening opacity on the calling thread.
void AW_FadeOut(void* window);
void AW_SetPar(AwAlpha alphaMax, AwAlpha alphaMin, AwAlpha alphaOpen, unsigned fadeSpeed);
void AW_EnableAll(int enable);
// Reaction to a window event; the glue calls it before the toolkit's own
// handling goes on. AW_CLOSE returns once the closing fade has ended.
void AW_CallBack(void* window, AwEvent event);

// Read access for the glue and for tests.
_AW_WNDALPHA* AW_Find(void* window);
int AW_Windows();
int AW_Enabled();
// Drops every record and restores the initial parameters (tests only).
void AW_Reset();

#endif
