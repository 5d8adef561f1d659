<?php
// SECRET-SOURCE-MARKER: this line must never reach a client.
echo "ran:", $_SERVER['QUERY_STRING'], ":", ini_get('allow_url_include') ? 'include-on' : 'include-off';
