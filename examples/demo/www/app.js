// Shows that scripts load and run: a small clock in the footer.
function tick() {
  document.getElementById("clock").textContent = new Date().toLocaleTimeString();
}
tick();
setInterval(tick, 1000);
