<?php
// The request's variables as the script sees them, without those PHP adds
// itself. A worker also shows FCGI_ROLE (php-cgi adds it) and the request
// limit it was started with (php-cgi reads it only from its environment).
header('Content-Type: text/plain');
$own = ['PHP_SELF', 'REQUEST_TIME', 'REQUEST_TIME_FLOAT', 'FCGI_ROLE', 'PHP_FCGI_MAX_REQUESTS', 'argv', 'argc'];
foreach ($_SERVER as $name => $value) if (!in_array($name, $own, true)) echo $name, '=', $value, "\n";
