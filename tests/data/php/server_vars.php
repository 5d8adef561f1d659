<?php
// The request's variables as the script sees them, without those PHP adds
// itself (and FCGI_ROLE, which only a FastCGI worker adds).
header('Content-Type: text/plain');
$own = ['PHP_SELF', 'REQUEST_TIME', 'REQUEST_TIME_FLOAT', 'FCGI_ROLE', 'argv', 'argc'];
foreach ($_SERVER as $name => $value) if (!in_array($name, $own, true)) echo $name, '=', $value, "\n";
