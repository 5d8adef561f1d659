<?php
// The run wrapper needs the file's full path; only the script knows where
// the demo lies, so it builds the request and sends the browser there.
header('Location: /run.ebd?file=' . rawurlencode(__DIR__ . DIRECTORY_SEPARATOR . 'notes.txt')
       . '&page=' . rawurlencode('/'));
