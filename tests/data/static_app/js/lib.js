// Loaded in the head; the application checks that it ran.
window.libValue = 6 * 7;
