<?php
header('Content-Type: text/plain');
foreach (getenv() as $name => $value) echo $name, '=', $value, "\n";
