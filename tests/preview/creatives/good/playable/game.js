var canvas = document.querySelector('canvas');
var brush = canvas.getContext('2d');
var taps = 0;
var isRunning = false;

function draw(now) {
  if (!isRunning) return;
  canvas.width = canvas.clientWidth;
  canvas.height = canvas.clientHeight;
  brush.fillStyle = '#f2a900';
  brush.beginPath();
  brush.arc(canvas.width / 2, canvas.height / 2 + 40 * Math.sin(now / 300), 40 + 8 * taps, 0, 7);
  brush.fill();
  requestAnimationFrame(draw);
}

canvas.addEventListener('click', function () {
  taps += 1;
  mraid.open('https://landing.example/?taps=' + taps);
});
mraid.addEventListener('viewableChange', function (isViewable) {
  isRunning = isViewable;
  if (isViewable) requestAnimationFrame(draw);
});
