<?php
echo "method=", $_SERVER['REQUEST_METHOD'], ";a=", $_POST['a'] ?? '', ";b=", $_POST['b'] ?? '';
