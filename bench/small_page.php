<?php
// The small page both PHP benchmarks serve: a little work and a short reply.
$items = [];
for ($i = 0; $i < 20; $i++) $items[] = "<li>item $i</li>";
echo "<!doctype html><title>bench</title><ul>", implode('', $items), "</ul>\n";
